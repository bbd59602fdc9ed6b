"""Fails each memory request of each operation, with the failing allocator preloaded:

    allocation_walk.py zelqa|dbapi one|rest [OPERATION [NUMBER]]

"one" fails a single request, "rest" that one and all behind it. Either the operation reports the
lack of memory and has done nothing, or it is done whole; then the same connection does it well, and
nothing is left behind. Each operation runs in a child, so that a crash is one finding and the walk
goes on behind it. NUMBER fails that request alone and in this process, for a debugger.

The interpreter takes all memory from the allocator (PYTHONMALLOC=malloc), so that its raw, mem and
object requests are among those that fail.
"""

import collections
import ctypes
import datetime
import gc
import mmap
import os
import shutil
import sqlite3
import sys
import tempfile
import traceback
import warnings

# What the module imports is there before: the walk is not through imports.
import decimal
import uuid  # noqa: F401

from vorda import dbapi, zelqa

module = {"zelqa": zelqa, "dbapi": dbapi}[sys.argv[1]]
full = module is dbapi
allocator = ctypes.CDLL(None)
arm, disarm, live = (allocator.failing_allocator_arm, allocator.failing_allocator_disarm,
                     allocator.failing_allocator_live)
arm.argtypes = [ctypes.c_long, ctypes.c_long]
arm.restype = None
disarm.restype = live.restype = ctypes.c_long
NEVER = sys.maxsize

LONG = "a text that is longer than a hundred characters \u00e4\u20ac\U0001f600 " * 3
VALUES = ("x", LONG, 5, 2 ** 40, 0.5, True, datetime.datetime(2024, 2, 29, 1, 2, 3, 4),
          datetime.date(2024, 2, 29), datetime.time(1, 2, 3), 10 ** 5)
if full:
    VALUES = VALUES[:-1] + (decimal.Decimal("1.25"),)
NAMES = ["s", "l", "i", "b", "f", "t", "dt", "d", "tm", "n"]
INSERT = "INSERT INTO t (%s) VALUES (%s)" % (", ".join(NAMES), ", ".join("?" * len(NAMES)))
NAMED = "INSERT INTO t (%s) VALUES (:%s)" % (", ".join(NAMES), ", :".join(NAMES))
QUERY = "SELECT * FROM t WHERE i >= ? AND s <> ?"
ALL = "SELECT * FROM t"

SETUP = [
    "PRAGMA synchronous = OFF",
    "CREATE TABLE t (k INTEGER PRIMARY KEY, s VARCHAR(9), l TEXT NOT NULL DEFAULT '', i INT, b "
    "BIGINT,"
    " f REAL, t BOOLEAN, dt TIMESTAMP, d DATE, tm TIME, n DECIMAL(9,2))",
    "CREATE TABLE log (what TEXT)",
    "CREATE PROCEDURE put (s VARCHAR, i INT) AS INSERT INTO log VALUES ($s); INSERT INTO log VALUES"
    " ($i); SELECT s, i, n FROM t WHERE i < $i",
]


class World:
    """A database file of its own, made from a template, and a connection to it."""

    folder = tempfile.mkdtemp()
    template = os.path.join(folder, "template.db")
    connect_to = "Database={%s};Timeout=0"

    @classmethod
    def begin(cls):
        connection = cls.connect(cls.template)
        for sql in SETUP:
            connection.execute(sql)
        connection.cursor().executemany(INSERT, [VALUES] * 2)
        for _ in range(99 * full):  # until CPython loses nothing where it unpacks a pair
            connection.execute("SELECT :a", {"a": 1})
        connection.close()

    @classmethod
    def end(cls):
        shutil.rmtree(cls.folder)

    def __init__(self):
        self.path = os.path.join(self.folder, "walk.db")
        for name in os.listdir(self.folder):
            if name.startswith("walk.db"):
                os.remove(os.path.join(self.folder, name))
        shutil.copyfile(self.template, self.path)
        self.files = len(os.listdir("/proc/self/fd"))
        self.connection = self.connect(self.path)
        self.cursor = self.connection.execute("PRAGMA synchronous = OFF")

    @classmethod
    def connect(cls, path):
        return module.connect(cls.connect_to % path, **{"autocommit": True} if full else {})

    def state(self):
        """What another program finds in the file."""
        other = sqlite3.connect(self.path, timeout=0)
        try:
            other.execute("BEGIN IMMEDIATE")  # nobody else is in a transaction
            return [other.execute("SELECT * FROM " + table).fetchall()
                    for table in ("t", "log", "sqlite_master")]
        finally:
            other.close()

    def left_behind(self):
        return len(os.listdir("/proc/self/fd")) > self.files


# What runs under the failing allocator, what goes before and behind it, and the state that a
# failure may leave: "failed", as if it had not run; also "done", where reading the rows fails
# behind the effect; also "none", where SQLite gives up the whole transaction, as it may for want of
# memory.
Operation = collections.namedtuple("Operation", "run before after failed",
                                   defaults=(None, None, "failed"))


def fetch(world):
    return list(map(tuple, world.cursor.fetchall()))


def query(world):
    world.cursor.execute(QUERY, (1, ""))


def first_row(world):
    if full:
        world.cursor.row_factory = dbapi.Row
    query(world)
    world.row = world.cursor.fetchone()


def use_row(world):
    row = world.row
    return repr(row), row["l"], row[-1], list(row), "x" in row


def begin(world):
    world.cursor.execute("BEGIN")
    world.cursor.execute("INSERT INTO log VALUES ('first')")


def commit(world):
    if full:
        return world.connection.commit()
    try:
        world.cursor.execute("COMMIT")
    except module.DatabaseError as error:
        assert "no transaction is active" in str(error)


def connect(world):
    world.connect(world.path).close()


def close(world):
    world.connection.close()


def reopen(world):
    world.connection = world.connect(world.path)
    world.cursor = world.connection.cursor()


def refusal(world, table="wrong"):
    """The provider's words, too many for a string's inline buffer."""
    try:
        world.cursor.execute("SELECT * FROM " + table * 30)
    except module.DatabaseError as error:
        if table * 30 not in str(error) and reports_lack_of_memory(error):
            raise
        return str(error)


def batch(world, rows=3):
    return world.cursor.executemany(INSERT, [VALUES] * rows).rowcount


MANY = ("WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 90)"
        " SELECT i, CASE i % 40 WHEN 0 THEN printf('%.*c', 60 * i, 'x') ELSE i END, i FROM n")


def read_on(world):
    """What a failed fetch was to give is missing; all else comes as it is."""
    rows, failed, last = [], None, 0
    world.cursor.execute(MANY)
    for _ in range(200):
        try:
            row = world.cursor.fetchone()
        except MemoryError as error:
            failed = error
            continue
        if row is None:
            break
        i, filler, again = row
        assert last < i == again and (failed or i == last + 1), "a row is missing"
        assert filler == (i if i % 40 else "x" * 60 * i), "a wrong row: %r" % (row,)
        rows.append(last := i)
    if failed:
        raise failed
    return len(rows)


def differing(world):
    return world.cursor.executemany(
        "INSERT INTO log VALUES (:v)", ({"v": v} for v in ("x", None, 5, LONG))).rowcount


def nextset(world):
    world.cursor.execute(QUERY, (1, ""))
    return world.cursor.nextset()


def in_transaction(world, end):
    world.connection.autocommit = False
    try:
        world.cursor.execute(INSERT, VALUES)
        getattr(world.connection, end)()
    finally:
        allocator.failing_allocator_pause(1)
        world.connection.rollback()
        world.connection.autocommit = True


OPERATIONS = {
    "connect": Operation(connect),
    "insert": Operation(lambda w: w.cursor.execute(INSERT, VALUES).rowcount),
    "named": Operation(lambda w: w.cursor.execute(NAMED, dict(zip(NAMES, VALUES))).rowcount),
    "direct": Operation(lambda w: w.cursor.execute("INSERT INTO log VALUES ('%s')"
                                                   % LONG).rowcount),
    "select": Operation(lambda w: w.cursor.execute(QUERY, (1, "")).description),
    "select again": Operation(lambda w: w.cursor.execute(QUERY, (1, "")).description, query),
    "fetchall": Operation(fetch, query),
    "fetchone": Operation(lambda w: tuple(w.cursor.fetchone()), query),
    "row": Operation(use_row, first_row),
    "batch": Operation(batch),
    "generated": Operation(
        lambda w: w.cursor.executemany(INSERT, (VALUES for _ in range(5))).rowcount),
    "callproc": Operation(lambda w: w.cursor.callproc("put", ["x", 7]) and fetch(w),
                          failed="done"),
    "refusal": Operation(refusal, lambda w: refusal(w, "e")),
    "close": Operation(close, query, reopen),
    "in a transaction": Operation(batch, begin, commit, failed="none"),
    "update": Operation(lambda w: w.cursor.execute("UPDATE t SET s = ?", ("new",)).rowcount),
    "create": Operation(lambda w: w.cursor.execute("CREATE TABLE u (a INT)") and None),
    "procedure": Operation(lambda w: w.cursor.execute(
        "CREATE OR REPLACE PROCEDURE put (i INT) AS INSERT INTO log VALUES ($i)") and None),
    "expressions": Operation(lambda w: w.cursor.execute(
        "SELECT count(*) c, sum(n), max(s), l || s FROM t GROUP BY l ORDER BY k") and fetch(w)),
    "long cells": Operation(
        lambda w: w.cursor.execute("SELECT hex(zeroblob(600)), printf('%.1000c', 'x')")
        and fetch(w)),
    "listing": Operation(lambda w: w.cursor.execute("SELECT * FROM sys_procedures") and fetch(w)),
}
if full:
    for name in ("direct", "update", "create", "procedure", "expressions", "listing"):
        del OPERATIONS[name]  # which are the runtime's
    OPERATIONS.update({
        "read on": Operation(read_on),
        "nextset": Operation(nextset),
        "commit": Operation(lambda w: in_transaction(w, "commit")),
        "rollback": Operation(lambda w: in_transaction(w, "rollback")),
        "values": Operation(lambda w: w.cursor.execute(
            "SELECT ?, ?, ?, ?", (None, b"x" * 999, uuid.UUID(int=1), bytearray(9))).fetchall()),
        "differing": Operation(differing),
        "differing in a transaction": Operation(differing, begin, commit, failed="none"),
        "script": Operation(lambda w: w.cursor.executescript(
            "INSERT INTO log VALUES (1); SELECT 1").fetchall(), failed="done"),
    })

# What comes next after a failure.
NEXT = [lambda w: None] + full * [
    lambda w: w.connection.commit(), lambda w: w.connection.rollback(),
    lambda w: setattr(w.connection, "autocommit", True),
    lambda w: w.cursor.executemany("DELETE FROM t WHERE k = ?", [(-1,), ("other",)])]

# Beside MemoryError and what speaks of memory: where the cause is not handed on.
OTHER_TEXTS = ("fail to create valid connection", "Unable to alloc env handle",
               "No runtime can be loaded", "Unable to retrieve the error",
               "no value is bound to marker")


def reports_lack_of_memory(error):
    if isinstance(error, module.Error):
        text = str(error)
        return ("memory" in text or any(known in text for known in OTHER_TEXTS)
                or reports_lack_of_memory(error.__cause__))
    return isinstance(error, MemoryError)


class Good:
    """What an operation gives when nothing fails, and the states with it, without it and before
    it."""

    def __init__(self, operation):
        self.states = {}
        for state, tried in (("none", Operation(None)), ("failed", operation._replace(run=None)),
                             ("done", operation)):
            world = World()
            self.result, error, self.requests = attempt(world, tried)
            if error is not None:
                raise error
            self.states[state] = world.state()
            close(world)

    def states_after(self, operation, failed):
        if not failed:
            return [self.states["done"]]
        return [self.states["failed"], self.states[operation.failed]]


def attempt(world, operation, first=NEVER, last=NEVER):
    """The operation's result, its exception, and the number of its requests."""
    result = error = None
    seen = 0
    if operation.before:
        operation.before(world)
    run = operation.run
    if run:
        arm(first, last)
        try:
            result = run(world)
        except BaseException as caught:
            error = caught
        seen = disarm()
    if operation.after:
        operation.after(world)
    return result, error, seen


def check(operation, good, first, last):
    """Whether the operation failed; an exception when it did so wrongly."""
    world = World()
    try:
        result, error, _ = attempt(world, operation, first, last)
        failed = error is not None
        if failed and not reports_lack_of_memory(error):
            raise error
        error = None
        assert failed or result == good.result, "a wrong result: %r" % (result,)
        if failed:
            # Undoing needs memory, too; what had to wait for it comes before whatever is next.
            NEXT[first % len(NEXT)](world)
            world.cursor.execute("PRAGMA user_version")
            assert not full or world.connection.autocommit
        states = good.states_after(operation, failed)
        found = world.state()
        assert found in states, "%s: %r" % ("failed, but done" if failed else "not done", [
            table for table, good in zip(found, states[0]) if table != good])
        if failed:
            again = attempt(world, operation)
            assert again[:2] == (good.result, None), "the next time: %r" % (again,)
    finally:
        close(world)
    assert not world.left_behind(), "a file is open"
    return failed


def check_memory(operation, good, first, last):
    """The same; what is kept once is a cache of the interpreter's, what is lost each time adds
    up."""
    before = live()
    failed = check(operation, good, first, last)
    if live() <= before:
        return failed
    for times in (1, 6):
        before = collected()
        for _ in range(times):
            failed = check(operation, good, first, last)
        # CPython loses a block where it has no memory for a function.
        if collected() - before < times * (1 + full):
            return failed
    raise AssertionError("%d blocks of memory are left behind" % (live() - before))


def collected():
    gc.collect()
    sys._clear_type_cache()  # which keeps names
    return live()


def walk(operation, mode, progress):
    """The findings by number; `progress` tells the parent how far it came."""
    good = Good(operation)
    failures, findings = 0, []
    # A request that fails may lead to some more.
    for number in range(1, good.requests + 20):
        progress[0] = number
        try:
            failures += check_memory(operation, good, number, number if mode == "one" else NEVER)
        except BaseException:
            findings.append((number, traceback.format_exc(limit=-3)))
    if not failures and operation.run is not close:
        findings.append((0, "nothing failed"))
    return findings


def walk_in_child(name, operation, mode):
    gc.freeze()  # what is there is not looked through again
    progress = memoryview(mmap.mmap(-1, 8)).cast("q")
    child = os.fork()
    if child == 0:
        findings = walk(operation, mode, progress)
        for number, what in findings:
            print("%s %d: %s" % (name, number, what))
        sys.stdout.flush()
        os._exit(len(findings) > 0)
    status = os.waitpid(child, 0)[1]
    if status not in (0, 256):
        print("%s %d: crashed, status %d" % (name, progress[0], status))
    return status == 0


def main(mode, chosen=None, number=None):
    warnings.simplefilter("ignore")
    World.begin()
    try:
        operations = {name: operation for name, operation in OPERATIONS.items()
                      if chosen in (None, name)}
        if number:
            first = int(number)
            operation = operations[chosen]
            check(operation, Good(operation), first, first if mode == "one" else NEVER)
            return True
        passed = [walk_in_child(name, operation, mode) for name, operation in operations.items()]
        print("%d operations" % len(passed))
        return all(passed)
    finally:
        World.end()


if __name__ == "__main__":
    sys.exit(0 if main(*sys.argv[2:]) else 1)
