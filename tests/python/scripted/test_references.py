"""Nothing is left behind, however often an operation runs and however it ends. A debug build of
CPython counts every reference (tools/references.sh); elsewhere those of a few objects and the
blocks of memory are counted."""

import datetime
import decimal
import gc
import itertools
import sys
import warnings

import pytest

from vorda import zelqa

from conftest import DECIMAL, SANITIZED, TIMESTAMP, WVARCHAR, Column, Timestamp, close

COLUMNS = [Column("t", WVARCHAR), Column("d", DECIMAL), Column("s", TIMESTAMP), Column("n")]
GOOD = ["text", "1.5", Timestamp(2024, 2, 29), 77777]
VALUES = ("a text of its own", 2 ** 40, 123.5, datetime.date(2024, 2, 29),
          datetime.datetime(2024, 2, 29, 1, 2, 3), datetime.time(1, 2, 3), None)
UPDATE = "UPDATE t SET a = @a, b = @b"
CONDITIONS = {  # the rows, and the call that fails
    "good": (GOOD, None), "execute": (GOOD, "SQLExecute"), "direct": (GOOD, "SQLExecDirectW"),
    "connect": (GOOD, "SQLDriverConnectW"), "fetch": (GOOD, "SQLFetch"),
    "prepare": (GOOD, "SQLPrepareW"),
    "bad text": ([b"\xff"] + GOOD[1:], None), "cut text": (["x" * 3000] + GOOD[1:], None),
    "bad number": (["text", "no number"] + GOOD[2:], None),
    "bad date": (GOOD[:2] + [Timestamp(0, 0, 0), 1], None)}


class Unfriendly:
    """Every question to it fails."""

    def fail(self, *arguments):
        raise ArithmeticError
    __eq__ = __hash__ = __repr__ = __index__ = __len__ = __getitem__ = __iter__ = fail


class UnfriendlyList(list):
    __len__ = Unfriendly.fail


# What is called, and with what; "!" stands before what fails even when the runtime does not; "do"
# is for anything else. None of them is done by others.
OPERATIONS = """
zelqa.connect: "Server=there" | ! | !b"bytes" | !"a", "b" | !"\\ud800"
do: !zelqa.Connection() | !zelqa.Cursor() | !zelqa.Row() | connection == 5, connection.close
do: connection.cursor(), connection.commit(), repr(connection), hash(connection)
connection.execute: "SELECT *" | ! | !5
do: !connection.close(), connection.close() | !connection.close(), connection.execute("SELECT *")
do: !connection.close(), cursor.execute("SELECT *") | repr(cursor), iter(cursor)
do: cursor.rowcount, cursor.description, cursor.arraysize, cursor.connection
setattr: cursor, "arraysize", 1000 | !cursor, "rowcount", 5
do: !cursor.close(), cursor.close() | !cursor.close(), cursor.description
do: !cursor.close(), cursor.execute("SELECT *") | !cursor.fetchone() | !cursor.fetchmany("text")
do: !cursor.next() | !next(cursor) | list(cursor.execute("SELECT *"))
cursor.execute("SELECT *").fetchall:
cursor.execute("SELECT *").fetchmany: 1 | !Unfriendly()
do: setattr(cursor, "arraysize", 1), cursor.execute("SELECT *").fetchmany()
do: cursor.execute("SELECT *").next(), cursor.description
do: !cursor.execute("SELECT *").fetchall(), cursor.next()
cursor.execute: UPDATE, *VALUES | UPDATE, list(VALUES) | UPDATE, {"a": VALUES[0], "b": VALUES[1]}
cursor.execute: "SELECT ?", "cut\\0here" | ! | !b"bytes" | !"\\ud800" | !UPDATE, 1, b"bytes"
cursor.execute: !UPDATE, 10 ** 30 | !UPDATE, "\\ud800" | !UPDATE, UnfriendlyList()
cursor.execute: !"UPDATE t SET a = @a, b = @zz", {"a": VALUES[0]}
cursor.executemany: UPDATE, [VALUES, VALUES] | UPDATE, (VALUES for _ in range(9))
cursor.executemany: UPDATE, [(None,), (2 ** 40,)] | ! | !5, [] | !UPDATE, 5 | !UPDATE, []
cursor.executemany: !UPDATE, [5] | !UPDATE, [VALUES, VALUES[1:]] | !UPDATE, [("text",), (5.5,)]
cursor.executemany: !UPDATE, [(1,), (2 ** 70,)] | !UPDATE, [("text",), ("\\ud800",)]
cursor.executemany: !UPDATE, [(b"x",)] | !UPDATE, (1 / 0 for _ in VALUES)
cursor.executemany: !UPDATE, [VALUES, UnfriendlyList()]
cursor.callproc: "P" | "P", VALUES[:1] | ! | !5 | !"P", 5 | !"P", UnfriendlyList()
do: row["t"] in row, len(row), repr(row), list(row), row[-1], row.description
do: hash(row), row == row, 5 in row | !row["zz"] | !row[99] | !row[None] | !row[0:1]
do: row.__setitem__(0, object()), row[0] | !row[Unfriendly()] | !Unfriendly() in row
do: row.__setitem__(0, [row]), repr(row), row.__setitem__(0, None)
row.__setitem__: !99, 5
do: !row.__delitem__(0) | !row.__setitem__(0, Unfriendly()), repr(row)
"""


def operations():
    for line in OPERATIONS.strip().split("\n"):
        function, calls = line.split(":", 1)
        for call in calls.strip().split(" | "):
            arguments = "(%s)" % call.lstrip("!")
            yield "!" * call.startswith("!") + (function != "do") * function + arguments


def references():
    if hasattr(sys, "gettotalrefcount"):
        return sys.gettotalrefcount()
    watched = (None, zelqa.Connection, zelqa.Cursor, zelqa.Row, zelqa.DatabaseError,
               zelqa.ProgrammingError, decimal.Decimal, datetime.datetime, str, int, tuple,
               list) + VALUES
    return sum(map(sys.getrefcount, watched))


def grows(operation, times):
    gc.collect()
    before = references(), sys.getallocatedblocks()
    for _ in range(times):
        operation()
    gc.collect()
    return max(references() - before[0], sys.getallocatedblocks() - before[1]) >= times // 2


@pytest.mark.parametrize("operation", operations())
def test_nothing_is_left(runtime, operation):
    """Each time on a connection of its own, since a direct statement lives as long as that."""
    code = compile(operation.lstrip("!"), "operation", "eval")

    def run():
        runtime.reset()
        for _ in range(2):
            runtime.result(*COLUMNS, rows=[cells, cells])
        connection = zelqa.connect("Server=there")
        cursor = connection.cursor()
        if failing:
            runtime.fail_next(failing, "it broke")
        fails = False
        try:
            row = "row" in code.co_names and cursor.execute("SELECT *").fetchone()
            eval(code, dict(globals(), connection=connection, cursor=cursor, row=row))
        except (zelqa.Error, TypeError, ValueError, ArithmeticError, LookupError, AttributeError,
                StopIteration):
            fails = True
        close(connection)
        del connection, cursor
        assert runtime.live_handles() == 0
        assert condition != "good" or fails == (operation[0] == "!")

    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        for condition, (cells, failing) in CONDITIONS.items():
            for _ in range(6):
                run()
            # What is kept now and then, by a cache of the interpreter, is not kept every time.
            assert SANITIZED or not all(grows(run, 16) for _ in range(5)), condition


def failure(connection):
    """An error whose traceback holds the connection and a cursor."""
    held = connection.cursor()
    try:
        held.execute("SELECT ?", b"")
    except zelqa.NotSupportedError as error:
        return error


@pytest.mark.parametrize("closed", [(), (0,), (1,), (0, 1)])
def test_objects_end_in_any_order(runtime, closed):
    """What is left can be used, or says why it cannot."""
    for order in itertools.permutations(range(5)):
        runtime.result(*COLUMNS, rows=[GOOD] * 2)
        connection = zelqa.connect("Server=there")
        cursor = connection.execute("SELECT *")
        row, error = cursor.fetchone(), failure(connection)
        objects = [connection, cursor, row, cursor.description, error]
        if order[:2] == (0, 1):
            objects.append([connection, cursor, objects])  # a circle, too
        del connection, cursor, row, error
        for dropped in order:
            if dropped in closed:
                close(objects[dropped])
            objects[dropped] = None
            _, cursor, row, description, error = objects[:5]
            assert row is None or (row["n"], row.description[3][0]) == (77777, "n")
            assert description is None or description[0][0] == "t"
            assert error is None or error.__traceback__.tb_frame.f_locals
            try:
                assert cursor is None or cursor.connection.execute("SELECT *").fetchall() == []
            except (zelqa.ProgrammingError, AttributeError) as closing:
                assert closed or "No results" in str(closing)
        del objects, cursor, row, description, error
        if order[:2] == (0, 1):
            gc.collect()
        assert runtime.live_handles() == 0
        runtime.take_log()
