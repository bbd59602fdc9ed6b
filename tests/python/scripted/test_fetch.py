"""Fetching and iteration: how many rows, in which order, and every way in which a fetch ends."""

import sys

import pytest

from vorda import zelqa

from conftest import ERROR, INFO, NO_DATA, WVARCHAR, Column, assert_no_growth, raises

NO_RESULT = "No results.  Previous SQL was not a DQL."
AT_END = "attempt to fetch next row when there is no rows anymore"
READERS = {
    "fetchone": lambda cursor: cursor.fetchone(),
    "fetchmany": lambda cursor: cursor.fetchmany(3),
    "fetchall": lambda cursor: cursor.fetchall(),
    "next": lambda cursor: cursor.next(),
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


def test_fetchone(runtime, five):
    runtime.take_log()
    assert [five.fetchone()[0] for _ in range(5)] == [0, 1, 2, 3, 4]
    assert five.fetchone() is None and five.fetchone() is None
    assert runtime.take_log() == ["SQLFetch(stmt1)"] * 7
    assert five.rowcount == 5


@pytest.mark.parametrize("arraysize, arguments, expected, fetches", [
    (None, (), 5, 6), (None, (-1,), 5, 6), (None, (2,), 2, 2), (None, (5,), 5, 5), (None, (9,), 5, 6),
    (None, (0,), 0, 0), (None, (-2,), 0, 0), (None, (True,), 1, 1), (None, (sys.maxsize,), 5, 6),
    (2, (), 2, 2), (2, (-1,), 2, 2), (2, (3,), 3, 3), (0, (), 0, 0), (-7, (), 0, 0), (9, (), 5, 6)])
def test_fetchmany(runtime, five, arraysize, arguments, expected, fetches):
    if arraysize is not None:
        five.arraysize = arraysize
    runtime.take_log()
    rows = five.fetchmany(*arguments)
    assert type(rows) is list and values(rows) == list(range(expected))
    assert runtime.take_log() == ["SQLFetch(stmt1)"] * fetches
    assert five.rowcount == expected


@pytest.mark.parametrize("arguments", [("2",), (2.0,), (None,), (1, 2)])
def test_fetchmany_with_wrong_arguments(runtime, five, arguments):
    runtime.take_log()
    with pytest.raises(TypeError):
        five.fetchmany(*arguments)
    with pytest.raises(OverflowError):
        five.fetchmany(2 ** 70)
    assert runtime.take_log() == []


def test_fetchall_honours_arraysize(five):
    five.arraysize = 2
    assert [values(five.fetchall()) for _ in range(4)] == [[0, 1], [2, 3], [4], []]
    five.arraysize = 0
    assert five.fetchall() == []
    assert five.rowcount == 5


def test_mixed_reading(five):
    assert five.next()[0] == 0
    assert values(five.fetchmany(2)) == [1, 2]
    assert next(five)[0] == 3
    assert values(five.fetchall()) == [4]
    assert (five.fetchall(), five.fetchmany(3), five.fetchone()) == ([], [], None)


def test_iteration_and_its_end(five):
    assert iter(five) is five
    assert values(five) == [0, 1, 2, 3, 4]
    assert list(five) == []
    with raises(StopIteration, AT_END):
        five.next()
    with raises(StopIteration, "Cursor object has no more rows."):
        next(five)
    assert next(five, "default") == "default"


@each_reader
def test_without_a_result_set(runtime, connection, cursor, read):
    def refused():
        with raises(zelqa.ProgrammingError, NO_RESULT):
            read(cursor)
    refused()
    cursor.execute("UPDATE t SET a = 1")
    refused()
    cursor.execute("SELECT a")  # without columns
    refused()
    runtime.result("a", rows=[[1]])
    cursor.execute("SELECT a")
    runtime.fail_next("SQLExecDirectW", "refused")
    with pytest.raises(zelqa.DatabaseError):
        cursor.execute("UPDATE t SET a = 1")
    refused()


def row_or_rows(read, cursor):
    try:
        return read(cursor)
    except StopIteration:
        return None


@each_reader
@pytest.mark.parametrize("native", [7, 100, 0, -1])
@pytest.mark.parametrize("message", ["it broke", "", None])
@pytest.mark.parametrize("fails_at", [1, 3])
def test_failed_fetch_is_an_error(runtime, five, read, native, message, fails_at):
    """Never the end of the rows, never a row of old values, never an endless loop."""
    for _ in range(fails_at - 1):
        five.fetchone()
    runtime.fail_next("SQLFetch", message, native)
    with raises(zelqa.DatabaseError, message or "Unable to retrieve the error"):
        read(five)
    assert runtime.count("SQLFetch") == fails_at
    # The failed call did not act: reading goes on where it was.
    assert five.fetchone()[0] == fails_at - 1


@pytest.mark.parametrize("read", [READERS["fetchall"], READERS["iteration"],
                                  lambda cursor: cursor.fetchmany(4)])
def test_failure_after_good_rows_loses_them_all(runtime, five, read):
    runtime.answer("SQLFetch", ERROR, 3)
    runtime.diag("it broke")
    with raises(zelqa.DatabaseError, "it broke"):
        read(five)
    assert runtime.count("SQLFetch") == 3


@each_reader
def test_fetch_that_fails_for_ever_ends(runtime, five, read):
    runtime.answer("SQLFetch", ERROR)
    for expected in range(1, 4):
        with pytest.raises(zelqa.DatabaseError):
            read(five)
        assert runtime.count("SQLFetch") == expected


@pytest.mark.parametrize("status", [-2, 99, 2, -32768, 4])
def test_other_statuses_of_a_fetch_are_failures(runtime, five, status):
    runtime.answer("SQLFetch", status, 1)
    with pytest.raises(zelqa.DatabaseError):
        five.fetchall()
    assert values(five.fetchall()) == [0, 1, 2, 3, 4]


@each_reader
@pytest.mark.parametrize("native", [0, 7, 100, None])
def test_information_comes_with_a_good_row(runtime, five, read, native):
    runtime.answer_after("SQLFetch", INFO, 1)
    if native is not None:
        runtime.diag("by the way", native)
    got = row_or_rows(read, five)
    assert (got if isinstance(got, zelqa.Row) else got[0])[0] == 0
    assert five.rowcount >= 1


def test_information_with_every_row(runtime, five):
    runtime.answer_after("SQLFetch", INFO)
    for native in (0, 7, 100):
        runtime.diag("by the way", native)
    runtime.answer("SQLFetch", NO_DATA, 6)
    assert values(five.fetchall()) == [0, 1, 2, 3, 4]


def test_failure_does_not_spoil_the_next_statement(runtime, five):
    runtime.fail_next("SQLFetch", "it broke")
    with pytest.raises(zelqa.DatabaseError):
        five.fetchone()
    runtime.result("b", rows=[[8]])
    assert values(five.execute("SELECT b").fetchall()) == [8]


def test_rows_keep_no_tie_to_the_provider(runtime, five):
    rows = five.fetchall()
    five.execute("UPDATE t SET a = 1")
    assert values(rows) == [0, 1, 2, 3, 4] and rows[4]["a"] == 4


@pytest.mark.parametrize("read", [
    lambda cursor: cursor.fetchall(), lambda cursor: cursor.fetchmany(2), list,
    lambda cursor: cursor.fetchmany(0), lambda cursor: (cursor.fetchone(), cursor.next())])
def test_nothing_is_left_by_fetching(runtime, connection, cursor, read):
    def good():
        runtime.result("a", Column("b", WVARCHAR), rows=[[70000 + i, "text"] for i in range(3)])
        read(cursor.execute("SELECT a, b"))

    def failing():
        runtime.result("a", rows=[[70000 + i] for i in range(3)])
        cursor.execute("SELECT a")
        runtime.fail_next("SQLFetch", "it broke")
        try:
            read(cursor)
        except zelqa.DatabaseError:
            pass
        with pytest.raises((StopIteration, zelqa.DatabaseError)):
            while True:
                cursor.next()

    assert_no_growth(good)
    assert_no_growth(failing)
