"""Random use of a driver's whole Python interface on a runtime that lies from a seed:
driver.py zelqa|dbapi|driver FIRST COUNT

Each seed decides what the program does and what is lied about the embedded runtime, or, with
`driver`, about the ODBC driver that vorda.dbapi and the embedded runtime use. Whatever that is: the
process lives and does not hang, only proper exceptions come out, no error of the runtime passes for
a success, no row has bytes of another, no handle is misused, none is left after closing, and
repeating a seed takes no more memory. The last seed printed is the one that failed;
`driver.py dbapi SEED 1` is that one alone.

VORDA_BUILD names the build tree; PYTHONPATH and LD_LIBRARY_PATH as for the tests on the scripted
runtime.
"""

import ctypes
import datetime
import decimal
import faulthandler
import gc
import glob
import os
import random
import re
import resource
import shutil
import sys
import tempfile
import warnings

SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
SECONDS_A_SEED = 60
DATABASE = "t.db"
# SQLite's, which needs no server.
ODBC_DRIVER = "".join(glob.glob("/usr/lib/*/odbc/libsqlite3odbc.so"))
MEMORY = 600 << 20
# Every so many seeds, one is repeated so often, so many times over, to see that it leaves no
# memory.
REPEATED, REPETITIONS, ROUNDS = 50, 12, 20

# --- What the program does ------------------------------------------------------------------------

TEXTS = ["", "a", "text", "naïve €", "\U0001f600", "nul\0inside", "\ud800", "x" * 99, "y" * 3000,
         "'", "1.5"]
NUMBERS = [0, 1, -1, 200, 2 ** 31 - 1, 2 ** 31, -2 ** 31 - 1, 2 ** 63 - 1, 2 ** 63, -2 ** 63,
           10 ** 30, True, 0.5, -0.0, 1e308, float("nan"), float("inf")]
MOMENTS = [datetime.date(1, 1, 1), datetime.date(9999, 12, 31),
           datetime.datetime(2024, 2, 29, 1, 2, 3, 4),
           datetime.datetime(2024, 2, 29, tzinfo=datetime.timezone.utc),
           datetime.time(23, 59, 59, 999999), datetime.time(0)]
ODD = [None, None, b"bytes", bytearray(b"b"), decimal.Decimal("1.5"), object(), (), [1], {}, 1j,
       slice(1), int]
VALUES = TEXTS + NUMBERS + MOMENTS + [None, None]
PIECES = ["SELECT", "UPDATE", "INSERT INTO", "EXECUTE", "EXEC", "DELETE", "(", ")", ",", "?", "?",
          "@a", ":b", "@long_name", "'text'", "'open", '"name"', '"open', "[x]", "-- note\n",
          "/* note */", "/* open", "1.5e", "0x", "t", "naïve", "=", ";", "::", "@", "€", "\0", "\n",
          "`a`", "#a#", "{", "}", ".", "<=", "<=>", "!="]
QUERIES = ["SELECT * FROM t", "SELECT * FROM t ORDER BY length(long), short DESC",
           "SELECT short, long FROM t", "SELECT %s short FROM t WHERE b < 70" % ("a, " * 200)]
STATEMENTS = [*QUERIES, "SELECT a FROM t WHERE b = ? AND c = ?",
              "UPDATE t SET a = ?, b = ?, c = ?", "UPDATE t SET a = @a, b = :b", "EXECUTE P a=?",
              "EXEC P a=1", "SELECT @a, @b", "INSERT INTO u VALUES (?)",
              "UPDATE t SET a = ? WHERE b = 3 RETURNING short, x"]

# What is read: short, long and binary values that tell their row, and a column of each type.
ROWS = 150
TABLE = """CREATE TABLE t (short TEXT, a TEXT, long TEXT, b BIGINT, x BLOB, c DOUBLE, day DATE,
    at TIMESTAMP, d DECIMAL(9, 2), yes BOOLEAN, hour TIME)"""
PROCEDURE = "CREATE PROCEDURE P (a) AS SELECT $a AS a, short, x FROM t"
TOKEN = re.compile(r"<\d{4}>")
REPEATS = (3, 8, 9, 400, 1)  # some as wide as a cell, some a little wider


def row_of(number):
    token = "<%04d>" % number
    repeats = REPEATS[3 if number % 37 == 0 else number % 3]
    return (token, "text", token * repeats, number, token.encode() * 3, number / 8,
            datetime.date(2024, 2, 29), datetime.datetime(2024, 2, 29, 1, 2, 3, 4),
            decimal.Decimal("-12.50"), number % 2 == 0, datetime.time(1, 2))


# Calls after which nothing may succeed. Whether releasing worked, or putting a batch size back,
# matters to nobody; about a parameter that could not be bound, the execution has to tell.
# What fails while vorda.dbapi reads ahead is told when that row comes; information, and blocks of
# rows, it does without.
FAILED = {
    "zelqa": re.compile(
        r"(?m)^SQL(?!Free|Disconnect|Error|BindParameter|SetStmtAttr\(.*, 1\)).* = -1$|"
        r"^SQLFetch\(.*\) = (?!0$|1$|100$)"),
    "dbapi": re.compile(
        r"(?m)^SQL(?!Free|Disconnect|Fetch|Get|SetPos|NumParams|Describe|ColAttribute|BindCol|"
        r"SetStmtAttr|SetConnectAttrW\(\w+, 2867[56]|EndTran\(2, \w+, 1\)).* = -1$")}
# What cannot be done as arrays is done row by row.
BATCH = re.compile(r"SQLSetStmtAttrW\(\w+, 22, .*\nSQLExecute.*")


class Nothing(Exception):
    """The program has no such object yet."""


class Program:
    """One random program and the objects that it has made."""

    def __init__(self, module, runtime, string, seed):
        self.module, self.runtime, self.random = module, runtime, random.Random(seed)
        # zelqa truncates; a driver may lie in the middle of a value.
        self.string = string
        self.is_whole = "dbapi" in module.__name__ and "Driver" not in string
        self.name = module.__name__.split(".")[-1]
        self.connections, self.cursors, self.rows = [], [], []

    def run(self):
        steps = self.random.randrange(5, 60)
        with warnings.catch_warnings():
            warnings.showwarning = lambda *warning: None
            warnings.simplefilter(self.random.choice(["ignore", "ignore", "always", "error"]))
            for _ in range(self.random.randrange(1, 4)):
                self.attempt((TypeError,), connect)
            for _ in range(steps):
                self.attempt(*self.random.choices(OPERATIONS, WEIGHTS)[0][1:])
            self.close()

    def close(self):
        """Whatever is left, in any order: closed, closed twice, or only forgotten."""
        for kept in (self.connections, self.cursors, self.rows):
            self.random.shuffle(kept)
        while self.connections or self.cursors or self.rows:
            kept = self.random.choice([k for k in (self.connections, self.cursors, self.rows) if k])
            last = kept.pop()
            for _ in range(self.random.randrange(3)):
                if hasattr(last, "close"):
                    self.attempt((), lambda program: last.close())
            del last

    def attempt(self, expected, operation):
        succeeded = True
        try:
            operation(self)
        except (Nothing, self.module.Error, RuntimeWarning, MemoryError, *expected) as error:
            assert not isinstance(error, UnicodeError)
            succeeded = False
        calls = self.runtime.scripted_log().decode("utf-8", "replace")
        self.runtime.scripted_log_clear()
        hidden = FAILED[self.name].findall(BATCH.sub("", calls))
        assert not (succeeded and hidden), "a success in spite of %s" % hidden

    def one(self, of):
        if not of:
            raise Nothing
        return self.random.choice(of)

    def look(self, row, seen=()):
        """Keeps a row, which has bytes of its own alone, and of none that was read before."""
        texts = [value.decode("latin-1") if isinstance(value, bytes) else value
                 for value in (row or ()) if isinstance(value, (bytes, str))]
        tokens = set(TOKEN.findall(" ".join(texts)))
        assert len(tokens) <= 1 and tokens.isdisjoint(seen), "bytes of another row: %s" % tokens
        for text in filter(TOKEN.match, texts if self.is_whole else ()):
            assert text == text[:6] * (len(text) // 6) and len(text) // 6 in REPEATS, text
        self.keep("rows", row)
        return tokens

    def keep(self, kind, made):
        """Keeps a few, so that others die in the middle of things."""
        kept = getattr(self, kind)
        kept.append(made)
        if len(kept) > self.random.randrange(2, 8):
            kept.pop(self.random.randrange(len(kept)))

    def statement(self):
        chance = self.random.random()
        if chance < 0.8:
            return self.random.choice(STATEMENTS)
        if chance < 0.98:
            return " ".join(self.random.choices(PIECES, k=self.random.randrange(30)))
        return self.random.choice(ODD)

    def value(self):
        return self.random.choice(VALUES if self.random.random() < 0.97 else ODD)

    def values(self, most=4):
        return [self.value() for _ in range(self.random.randrange(most))]

    def arguments(self):
        """What may follow a statement."""
        return self.random.choice([
            lambda: (), lambda: (tuple(self.values()),), lambda: (self.values(),),
            lambda: tuple(self.values()),
            lambda: ({"a": self.value(), "b": self.value(), "long_name": 1, 5: 6},),
            lambda: (self.values(200),), lambda: (self.random.choice(ODD),)])()

    def batch(self):
        columns, rows = self.random.randrange(5), self.random.choice([0, 1, 2, 3, 50])
        first = [self.value() for _ in range(columns)]
        same = [[v for v in VALUES if type(v) is type(value)] for value in first]
        made = [[self.random.choice(s) if s else v for s, v in zip(same, first)]
                for _ in range(rows)]
        if self.random.random() < 0.1:
            made.insert(self.random.randrange(rows + 1), self.random.choice(ODD))
        return self.random.choice([made, tuple(made), iter(made), (row for row in made)])


def connect(program):
    usual = program.random.random() < 0.9
    program.keep("connections", program.module.connect(
        program.string if usual else program.random.choice(TEXTS[:1] + TEXTS[3:] + ODD)))
    program.keep("cursors", program.connections[-1].cursor())


def query(program):
    """A query and all that it yields."""
    seen, rows = set(), 0
    for row in program.one(program.cursors).execute(program.random.choice(QUERIES)):
        rows += 1
        # Whether a row was fetched when that is what is said can be seen in a block alone.
        if program.name == "dbapi":
            assert rows <= ROWS, "more rows than there are"
            seen |= program.look(row, seen)
        else:
            program.look(row)


def call_procedure(program):
    arguments = program.random.choice([(), (program.values(),), (tuple(program.values()),), (5,),
                                       ([], [])])
    program.one(program.cursors).callproc(program.random.choice(["P", "P", "it's", *TEXTS, None]),
                                          *arguments)


def fetch(program):
    cursor = program.one(program.cursors)
    for row in program.random.choice([
            cursor.fetchall, cursor.fetchmany,
            lambda: cursor.fetchmany(program.random.choice([0, 1, 3, -1, -2])),
            lambda: cursor.fetchmany(program.random.choice(VALUES)),
            lambda: [getattr(cursor, "next", cursor.fetchone)() or next(cursor), next(cursor)],
            lambda: [cursor.fetchone() or program.one([])]])():
        program.look(row)


def use_row(program):
    row = program.one(program.rows)
    for name in [column[0] for column in getattr(row, "description", None) or ()]:
        row[name]
    program.value() in row, repr(row), list(row), len(row)
    row[program.random.choice([0, -1, 1, 2 ** 70])] = program.value()
    row[program.random.choice([0, -1, "a", "b", *VALUES, *ODD])]


def misuse(program):
    """Arguments in numbers and of kinds that nothing takes."""
    cursor, row = program.one(program.cursors), program.one(program.rows)
    program.random.choice([
        program.module.connect, lambda: program.module.connect("a", "b"), cursor.execute,
        cursor.executemany, lambda: cursor.executemany("x"),
        lambda: cursor.executemany("x", [], []), cursor.callproc,
        lambda: cursor.executemany("x", 5), lambda: cursor.executemany("x", (1 / 0 for _ in "a")),
        lambda: row.__delitem__(0), lambda: row[0:1], lambda: row.__setitem__("a", 1)])()


def use_attributes(program):
    cursor = program.one(program.cursors)
    if program.random.random() < 0.5:
        setattr(cursor, program.random.choice(["arraysize"] * 4 + ["rowcount", "other"]),
                program.random.choice([-1, -1, 1, 3, 0, -5, 2 ** 31, 2 ** 70, "1", None]))
    cursor.rowcount, cursor.arraysize, cursor.connection, cursor.description
    program.one(program.connections).commit()


def use_transaction(program):
    connection, cursor = program.one(program.connections), program.one(program.cursors)
    program.random.choice([
        connection.rollback, connection.cancel, cursor.nextset, lambda: connection.in_transaction,
        lambda: cursor.lastrowid, lambda: setattr(connection, "autocommit", connection.autocommit),
        lambda: setattr(connection, "autocommit", program.random.random() < 0.5),
        lambda: setattr(cursor, "row_factory", program.random.choice([None, dict, tuple, list])),
        lambda: cursor.executescript("SELECT 1; UPDATE t SET a = 1")])()


def forget(program):
    kept = program.random.choice([program.connections, program.cursors, program.rows])
    kept.remove(program.one(kept))


# How often, what may come out besides success and the exceptions that may always do, and what is
# done.
NO_VALUE = (ValueError, decimal.InvalidOperation)  # a date, a decimal that is none
OPERATIONS = [
    (1, (TypeError,), connect),
    (1, (), lambda program: program.keep("cursors", program.one(program.connections).cursor())),
    (1, (TypeError,),
     lambda program: program.keep("cursors", program.one(program.connections).execute(
        program.statement(), *program.arguments()))),
    (6, (TypeError,), lambda program: program.one(program.cursors).execute(
        program.statement(), *program.arguments())),
    (3, (TypeError,), lambda program: program.one(program.cursors).executemany(
        program.statement(), program.batch())),
    (6, NO_VALUE, query),
    (3, (TypeError, *NO_VALUE), call_procedure),
    (6, (TypeError, OverflowError, StopIteration, *NO_VALUE), fetch),
    (4, (TypeError, IndexError, *NO_VALUE), use_row),
    (1, (TypeError, AttributeError, ZeroDivisionError), misuse),
    (2, (TypeError, OverflowError, AttributeError), use_attributes),
    (1, (), lambda program: program.one(program.random.choice([program.connections,
                                                               program.cursors])).close()),
    (2, (), forget),
    (2, (AttributeError,), use_transaction),
]
WEIGHTS = [weight for weight, _, _ in OPERATIONS]

# --- Running seeds --------------------------------------------------------------------------------


class Mallinfo(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in "abcdefg"] + [("in_use", ctypes.c_size_t * 3)]


class Runner:
    """The libraries, and running seeds on them in this process."""

    def __init__(self, name):
        from vorda import dbapi, zelqa
        self.module = zelqa if name == "zelqa" else dbapi
        self.entry, self.libc = ctypes.CDLL(zelqa.__file__), ctypes.CDLL(None)
        self.embedded = os.path.join(os.path.dirname(zelqa.__file__), "libvordart.x64.so.6")
        scripted = os.path.join(os.environ["VORDA_BUILD"], "scripted", "")
        self.runtime = self.liar = ctypes.CDLL(scripted + "libvordart.x64.so.6")
        self.string = "Database=%s;Timeout=0" % DATABASE
        if name == "driver":
            self.liar = ctypes.CDLL(scripted + "libvorda_lying_driver.so")
            self.string = "Database=%s;Timeout=20;Driver=%slibvorda_lying_driver.so" % (
                DATABASE, scripted)
        self.liar.scripted_log.restype = self.runtime.scripted_log.restype = ctypes.c_char_p
        # The driver manager keeps memory.
        self.measures = not SANITIZED and name != "driver" and hasattr(self.libc, "mallinfo2")
        if self.measures:
            self.libc.mallinfo2.restype = Mallinfo
        self.runtime.scripted_forward(self.embedded.encode())
        with dbapi.connect(Database=DATABASE + ".new") as connection:
            cursor = connection.execute("CREATE TABLE u (a)")
            cursor.execute(TABLE)
            cursor.execute(PROCEDURE)
            cursor.executemany("INSERT INTO t VALUES (%s)" % ", ".join("?" * len(row_of(0))),
                               map(row_of, range(ROWS)))
        connection.close()

    def run(self, seed):
        runtime, liar = self.runtime, self.liar
        for library in {liar, runtime}:
            library.scripted_reset()
        if liar is not runtime:
            liar.scripted_forward(ODBC_DRIVER.encode())
        runtime.scripted_forward(self.embedded.encode())
        liar.scripted_hostile(ctypes.c_ulonglong(seed))
        shutil.copy(DATABASE + ".new", DATABASE)
        program = Program(self.module, runtime, self.string, seed)
        program.run()
        left, misuses = liar.scripted_live_handles(0), liar.scripted_errors()
        assert left == misuses == 0, "%d handles left, %d misuses:\n%s" % (
            left, misuses, liar.scripted_log().decode("utf-8", "replace"))
        # The module counts environments by statuses that were lies; the next seed starts without
        # any.
        runtime.scripted_reset()
        runtime.scripted_answer(b"SQLFreeHandle", 0, 0)
        while self.entry.SQLFreeEnv(None) == 0:
            pass

    def run_repeatedly(self, seed, times):
        for _ in range(times):
            self.run(seed)
        gc.collect()
        sys._clear_type_cache()  # which keeps names that other calls made
        return sys.getallocatedblocks(), self.libc.mallinfo2().in_use[0]

    def check_flat(self, seed):
        """What leaks does so every time; the allocators' own housekeeping does not."""
        self.run_repeatedly(seed, REPETITIONS)
        before = self.run_repeatedly(seed, REPETITIONS)
        for _ in range(ROUNDS):
            now = self.run_repeatedly(seed, REPETITIONS)
            blocks, size = (b - a for a, b in zip(before, now))
            if blocks < REPETITIONS and size < REPETITIONS * 16:
                return
            before = now
        raise AssertionError("%d repetitions took %d more blocks, %d more bytes"
                             % (REPETITIONS, blocks, size))


def main(name, first, count):
    runner = Runner(name)
    if not SANITIZED:
        resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    for seed in range(first, first + count):
        print("seed", seed, flush=True)
        faulthandler.dump_traceback_later(SECONDS_A_SEED, exit=True)
        runner.run(seed)
        if runner.measures and seed % REPEATED == 0:
            runner.check_flat(seed)
    faulthandler.cancel_dump_traceback_later()


if __name__ == "__main__":
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        main(sys.argv[1], *map(int, sys.argv[2:]))
