"""Random use of the module's whole Python interface on a runtime that answers from a seed.

    driver.py [--first N] [--count N] [--chunk N] [--jobs N]

Each seed decides what the program does and what the runtime answers. Whatever that is: the process
lives and does not hang, only proper exceptions come out, no handle is misused, none is left after
closing, and repeating a seed takes no more memory. A chunk of seeds shares a process; when one of
them fails, the seed is printed and the rest of the chunk goes on in a new process.
`--first N --count 1` is that seed alone.

VORDA_BUILD names the build tree; PYTHONPATH and LD_LIBRARY_PATH as for the tests on the scripted
runtime.
"""

import argparse
import collections
import concurrent.futures
import ctypes
import datetime
import decimal
import faulthandler
import gc
import json
import os
import random
import resource
import subprocess
import sys
import traceback
import warnings

SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
SECONDS_A_SEED = 60
MEMORY = 600 << 20
# Each such seed is repeated, and may leave so many bytes a time: the allocator's own housekeeping.
REPEATED, WARM_UP, REPETITIONS, BYTES = 50, 16, 16, 1000

# --- What the program does ----------------------------------------------------------------------------------

TEXTS = ["", "a", "text", "naïve €", "\U0001f600", "nul\0inside", "\ud800", "x" * 99, "y" * 3000, "'", "1.5"]
NUMBERS = [0, 1, -1, 200, 2 ** 31 - 1, 2 ** 31, -2 ** 31 - 1, 2 ** 63 - 1, 2 ** 63, -2 ** 63, 10 ** 30,
           True, 0.5, -0.0, 1e308, float("nan"), float("inf")]
MOMENTS = [datetime.date(1, 1, 1), datetime.date(9999, 12, 31), datetime.datetime(2024, 2, 29, 1, 2, 3, 4),
           datetime.datetime(2024, 2, 29, tzinfo=datetime.timezone.utc), datetime.time(23, 59, 59, 999999),
           datetime.time(0)]
ODD = [None, None, b"bytes", bytearray(b"b"), decimal.Decimal("1.5"), object(), (), [1], {}, 1j, slice(1), int]
VALUES = TEXTS + NUMBERS + MOMENTS + [None, None]
PIECES = ["SELECT", "UPDATE", "INSERT INTO", "EXECUTE", "EXEC", "DELETE", "(", ")", ",", "?", "?", "@a", ":b",
          "@long_name", "'text'", "'open", '"name"', '"open', "[x]", "-- note\n", "/* note */", "/* open",
          "1.5e", "0x", "t", "naïve", "=", ";", "::", "@", "€", "\0", "\n",
          "`a`", "#a#", "{", "}", ".", "<=", "<=>", "!="]
STATEMENTS = ["SELECT * FROM t", "SELECT a FROM t WHERE b = ? AND c = ?", "UPDATE t SET a = ?, b = ?, c = ?",
              "UPDATE t SET a = @a, b = :b", "EXECUTE P a=?", "EXEC P", "SELECT @a, @b", "INSERT INTO t VALUES (?)"]


class Nothing(Exception):
    """The program has no such object yet."""


class Program:
    """One random program and the objects that it has made."""

    def __init__(self, zelqa, seed, outcomes):
        self.zelqa, self.random, self.outcomes = zelqa, random.Random(seed), outcomes
        self.connections, self.cursors, self.rows = [], [], []

    def run(self):
        steps = self.random.randrange(5, 60)
        with warnings.catch_warnings():
            warnings.showwarning = lambda *warning: None
            warnings.simplefilter(self.random.choice(["ignore", "ignore", "always", "error"]))
            for _ in range(self.random.randrange(1, 4)):
                self.attempt(connect)
            for _ in range(steps):
                self.attempt(self.random.choice(OPERATIONS))
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
                    self.attempt(lambda program: last.close())
            del last

    def attempt(self, operation):
        try:
            operation(self)
            outcome = "success"
        except Nothing:
            return
        except (self.zelqa.Error, RuntimeWarning, MemoryError) as error:
            outcome = type(error).__name__
        except EXPECTED.get(operation, ()) as error:
            outcome = type(error).__name__
        self.outcomes[outcome] += 1

    def one(self, of):
        if not of:
            raise Nothing
        return self.random.choice(of)

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
            lambda: (), lambda: (tuple(self.values()),), lambda: (self.values(),), lambda: tuple(self.values()),
            lambda: ({"a": self.value(), "b": self.value(), "long_name": 1, 5: 6},),
            lambda: (self.values(200),), lambda: (self.random.choice(ODD),)])()

    def batch(self):
        columns, rows = self.random.randrange(5), self.random.choice([0, 1, 2, 3, 50])
        first = [self.value() for _ in range(columns)]
        same = [[v for v in VALUES if type(v) is type(value)] for value in first]
        made = [[self.random.choice(s) if s else v for s, v in zip(same, first)] for _ in range(rows)]
        if self.random.random() < 0.1:
            made.insert(self.random.randrange(rows + 1), self.random.choice(ODD))
        return self.random.choice([made, tuple(made), iter(made), (row for row in made)])


def connect(program):
    string = "Server=there" if program.random.random() < 0.8 else program.random.choice(TEXTS + ODD)
    program.keep("connections", program.zelqa.connect(string))
    program.keep("cursors", program.connections[-1].cursor())


def make_cursor(program):
    program.keep("cursors", program.one(program.connections).cursor())


def connection_execute(program):
    program.keep("cursors", program.one(program.connections).execute(program.statement(), *program.arguments()))


def execute(program):
    program.one(program.cursors).execute(program.statement(), *program.arguments())


def query(program):
    """A query and all that it yields."""
    cursor = program.one(program.cursors).execute(program.random.choice(STATEMENTS[:2]))
    for row in cursor:
        program.keep("rows", row)


def execute_many(program):
    program.one(program.cursors).executemany(program.statement(), program.batch())


def call_procedure(program):
    arguments = program.random.choice([(), (program.values(),), (tuple(program.values()),), (5,), ([], [])])
    program.one(program.cursors).callproc(program.random.choice(["P", "P", "it's", *TEXTS, None]), *arguments)


def fetch_one(program):
    row = program.one(program.cursors).fetchone()
    if row is not None:
        program.keep("rows", row)


def fetch_some(program):
    cursor = program.one(program.cursors)
    for row in program.random.choice([
            cursor.fetchall, cursor.fetchmany, lambda: cursor.fetchmany(program.random.choice([0, 1, 3, -1, -2])),
            lambda: cursor.fetchmany(program.random.choice(VALUES)), lambda: [cursor.next(), next(cursor)]])():
        program.keep("rows", row)


def use_row(program):
    row = program.one(program.rows)
    repr(row), list(row), len(row), row.description
    for name in [column[0] for column in row.description or ()]:
        row[name]
    row[program.random.choice([0, -1, "a", "b", *VALUES, *ODD])]


def change_row(program):
    row = program.one(program.rows)
    program.value() in row
    row[program.random.choice([0, -1, 1, 2 ** 70])] = program.value()


def misuse(program):
    """Arguments in numbers and of kinds that nothing takes."""
    cursor, row = program.one(program.cursors), program.one(program.rows)
    program.random.choice([
        program.zelqa.connect, lambda: program.zelqa.connect("a", "b"), cursor.execute, cursor.executemany,
        lambda: cursor.executemany("x"), lambda: cursor.executemany("x", [], []), cursor.callproc,
        lambda: cursor.executemany("x", 5), lambda: cursor.executemany("x", (1 / 0 for _ in "a")),
        lambda: row.__delitem__(0), lambda: row[0:1], lambda: row.__setitem__("a", 1)])()


def read_attributes(program):
    cursor = program.one(program.cursors)
    cursor.rowcount, cursor.arraysize, cursor.connection, cursor.description
    program.one(program.connections).commit()


def set_attribute(program):
    setattr(program.one(program.cursors), program.random.choice(["arraysize"] * 4 + ["rowcount", "other"]),
            program.random.choice([-1, -1, 1, 3, 0, -5, 2 ** 31, 2 ** 70, "1", None]))


def close_one(program):
    program.one(program.random.choice([program.connections, program.cursors])).close()


def forget(program):
    kept = program.random.choice([program.connections, program.cursors, program.rows])
    kept.remove(program.one(kept))


OPERATIONS = [connect, make_cursor, connection_execute, forget, forget, close_one, read_attributes,
              set_attribute, change_row, misuse] + 3 * [
    execute, execute, query, execute_many, call_procedure, fetch_one, fetch_some, use_row]

# A value that is no date, a decimal that is none.
NO_VALUE = (ValueError, decimal.InvalidOperation)
# Besides the module's own exceptions, lack of memory and warnings that are errors.
EXPECTED = {
    connection_execute: (TypeError,), execute: (TypeError,), query: NO_VALUE,
    call_procedure: (TypeError, *NO_VALUE), fetch_one: NO_VALUE,
    fetch_some: (TypeError, OverflowError, StopIteration, *NO_VALUE), use_row: (IndexError, TypeError),
    change_row: (IndexError, decimal.InvalidOperation), read_attributes: (AttributeError,),
    misuse: (TypeError, AttributeError), set_attribute: (TypeError, OverflowError, AttributeError),
}

# --- A process with a chunk of seeds ------------------------------------------------------------------------


class Mallinfo(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in "abcdefghij"]


def memory_in_use(libc):
    gc.collect()
    sys._clear_type_cache()  # which keeps names that other calls made
    return sys.getallocatedblocks(), libc.mallinfo2().h


def run_seed(zelqa, runtime, entry, seed, outcomes):
    runtime.scripted_reset()
    runtime.scripted_hostile(ctypes.c_ulonglong(seed))
    Program(zelqa, seed, outcomes).run()
    left, misuses = runtime.scripted_live_handles(0), runtime.scripted_errors()
    if left or misuses:
        log = runtime.scripted_log().decode("utf-8", "replace").split("\n")
        raise AssertionError("%d handles left, %d misuses:\n%s" % (left, misuses, "\n".join(
            log[:50] + [line for line in log if line.startswith("ERROR:")])))
    # The module counts environments by statuses that were lies; the next seed starts without any.
    runtime.scripted_reset()
    runtime.scripted_answer(b"SQLFreeHandle", 0, 0)
    while entry.SQLFreeEnv(None) == 0:
        pass


def run_chunk(first, count):
    from vorda import zelqa
    runtime = ctypes.CDLL(os.path.join(os.environ["VORDA_BUILD"], "scripted", "libvordart.x64.so.6"))
    runtime.scripted_log.restype = ctypes.c_char_p
    entry = ctypes.CDLL(zelqa.__file__)
    libc = ctypes.CDLL(None)
    measures = not SANITIZED and hasattr(libc, "mallinfo2")
    if measures:
        libc.mallinfo2.restype = Mallinfo
    if not SANITIZED:
        resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    outcomes = collections.Counter()
    for seed in range(first, first + count):
        print("seed", seed, flush=True)
        faulthandler.dump_traceback_later(SECONDS_A_SEED, exit=True)
        try:
            run_seed(zelqa, runtime, entry, seed, outcomes)
            if measures and seed % REPEATED == 0:
                check_flat(zelqa, runtime, entry, seed, libc)
        except BaseException:
            traceback.print_exc()
            sys.stderr.flush()
            os._exit(1)
    faulthandler.cancel_dump_traceback_later()
    print(json.dumps(outcomes), flush=True)


def check_flat(zelqa, runtime, entry, seed, libc):
    for _ in range(WARM_UP):
        run_seed(zelqa, runtime, entry, seed, collections.Counter())
    blocks, size = memory_in_use(libc)
    for _ in range(REPETITIONS):
        run_seed(zelqa, runtime, entry, seed, collections.Counter())
    more_blocks, more_size = memory_in_use(libc)
    assert more_blocks - blocks < REPETITIONS and more_size - size < REPETITIONS * BYTES, (
        "%d repetitions took %d more blocks, %d more bytes" % (
            REPETITIONS, more_blocks - blocks, more_size - size))


# --- The chunks ---------------------------------------------------------------------------------------------


def run_in_process(first, count):
    """Runs a chunk to its end; returns the outcomes and (seed, output) for each that failed."""
    outcomes, failures = collections.Counter(), []
    end = first + count
    while first < end:
        child = subprocess.run([sys.executable, __file__, "--child", "--first", str(first), "--count",
                                str(end - first)], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        lines = child.stdout.decode().splitlines()
        if child.returncode == 0:
            outcomes.update(json.loads(lines[-1]))
            break
        seeds = [int(line[5:]) for line in lines if line.startswith("seed ")]
        failed = seeds[-1] if seeds else end  # it did not even start
        failures.append((failed, "exit status %d\n%s" % (
            child.returncode, child.stderr.decode("utf-8", "replace")[-6000:])))
        first = failed + 1
    return outcomes, failures


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--first", type=int, default=1)
    parser.add_argument("--count", type=int, default=1000)
    parser.add_argument("--chunk", type=int, default=250)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--child", action="store_true")
    given = parser.parse_args()
    if given.child:
        run_chunk(given.first, given.count)
        return 0
    end = given.first + given.count
    starts = range(given.first, end, given.chunk)
    outcomes, failed = collections.Counter(), []
    with concurrent.futures.ThreadPoolExecutor(given.jobs) as pool:
        for counted, failures in pool.map(lambda s: run_in_process(s, min(given.chunk, end - s)), starts):
            outcomes.update(counted)
            for seed, output in failures:
                failed.append(seed)
                print("seed %d failed: %s" % (seed, output), flush=True)
    print("%d seeds, %d failed %s; operations: %s" % (
        given.count, len(failed), failed[:20], ", ".join("%s %d" % item for item in outcomes.most_common())))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
