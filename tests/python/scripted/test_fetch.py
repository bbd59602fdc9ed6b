"""Fetching and iteration: how many rows, in which order, and every way in which a fetch ends."""

import itertools
import sys

import pytest

from vorda import zelqa

from conftest import ERROR, INFO, NO_DATA, NO_DIAGNOSTIC, raises

READERS = {
    "fetchone": lambda cursor: cursor.fetchone(), "fetchmany": lambda cursor: cursor.fetchmany(3),
    "fetchall": lambda cursor: cursor.fetchall(), "next": lambda cursor: cursor.next(),
    "iteration": list,
}
each_reader = pytest.mark.parametrize("read", READERS.values(), ids=READERS.keys())


@pytest.fixture
def five(runtime, cursor):
    """A cursor with five rows to read."""
    runtime.result("a", rows=[[i] for i in range(5)], row_count=-1)
    return cursor.execute("SELECT a FROM t")


def values(rows):
    return [row[0] for row in rows]


def test_one_by_one(runtime, five):
    runtime.take_log()
    assert [five.fetchone()[0], five.next()[0], next(five)[0], five.fetchone()[0]] == [0, 1, 2, 3]
    assert five.rowcount == 4
    assert iter(five) is five and values(five) == [4]
    assert five.fetchone() is None and five.fetchone() is None and list(five) == []
    with raises(StopIteration, "attempt to fetch next row when there is no rows anymore"):
        five.next()
    with raises(StopIteration, "Cursor object has no more rows."):
        next(five)
    assert (five.fetchall(), five.fetchmany(3), five.rowcount) == ([], [], 5)
    assert set(runtime.take_log()) == {"SQLFetch(stmt1)"}


@pytest.mark.parametrize("arraysize, arguments, expected, fetches", [
    (-1, (), 5, 6), (-1, (-1,), 5, 6), (-1, (5,), 5, 5), (-1, (0,), 0, 0), (-1, (-2,), 0, 0),
    (-1, (True,), 1, 1), (-1, (sys.maxsize,), 5, 6), (2, (), 2, 2), (2, (-1,), 2, 2),
    (2, (3,), 3, 3),
    (0, (), 0, 0), (-7, (), 0, 0), (9, (), 5, 6)])
def test_fetchmany(runtime, five, arraysize, arguments, expected, fetches):
    five.arraysize = arraysize
    runtime.take_log()
    rows = five.fetchmany(*arguments)
    assert type(rows) is list and values(rows) == list(range(expected))
    assert runtime.take_log() == ["SQLFetch(stmt1)"] * fetches
    assert five.rowcount == expected


def test_fetchall_honours_arraysize(five):
    five.arraysize = 2
    assert [values(five.fetchall()) for _ in range(4)] == [[0, 1], [2, 3], [4], []]
    five.arraysize = 0
    assert five.fetchall() == [] and five.rowcount == 5


@each_reader
def test_without_a_result_set(runtime, cursor, read):
    def refused():
        with raises(zelqa.ProgrammingError, "No results.  Previous SQL was not a DQL."):
            read(cursor)
    refused()
    cursor.execute("SELECT without columns")
    refused()
    runtime.result("a", rows=[[1]])
    cursor.execute("SELECT a")
    runtime.fail_next("SQLExecDirectW", "refused")
    with pytest.raises(zelqa.DatabaseError):
        cursor.execute("UPDATE t SET a = 1")
    refused()


@each_reader
@pytest.mark.parametrize("fails_at", [1, 3])
def test_failed_fetch_is_an_error(runtime, five, read, fails_at):
    """Never the end of the rows, never a row of old values, never an endless loop."""
    for native, message in itertools.product([7, 100, 0, -1], ["it broke", "", None]):
        runtime.result("a", rows=[[i] for i in range(5)])
        five.execute("SELECT a FROM t")
        for _ in range(fails_at - 1):
            five.fetchone()
        fetched = runtime.count("SQLFetch")
        runtime.fail_next("SQLFetch", message, native)
        with raises(zelqa.DatabaseError, message or NO_DIAGNOSTIC):
            read(five)
        assert runtime.count("SQLFetch") == fetched + 1
        # The failed call did not act: reading goes on where it was.
        assert five.fetchone()[0] == fails_at - 1
    for status in (ERROR, -2, 99, 2, -32768):
        fetched = runtime.count("SQLFetch")
        runtime.answer("SQLFetch", status)
        with pytest.raises(zelqa.DatabaseError):
            read(five)
        assert runtime.count("SQLFetch") == fetched + 1


@each_reader
@pytest.mark.parametrize("native", [0, 7, 100, None])
def test_information_comes_with_a_good_row(runtime, five, read, native):
    runtime.answer_after("SQLFetch", INFO)
    if native is not None:
        runtime.diag("by the way", native)
    runtime.answer("SQLFetch", NO_DATA, 6)
    got = read(five)
    assert values([got] if isinstance(got, zelqa.Row) else got)[0] == 0
