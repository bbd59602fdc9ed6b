"""executemany: arrays bound column by column, one execution, and nothing half done."""

import collections
import datetime

import pytest

from vorda import zelqa

from conftest import bound, raises

UTC = datetime.timezone.utc
INSERT = "INSERT INTO t VALUES (?, ?)"
BATCH = [(1, "a"), (2, "caf\u00e9"), (3, "")]
AS_BOUND = ["1: values=[1, 2, 3], lens=[8, 8, 8]",
            '2: values=["a", "caf\u00e9", ""], lens=[1, 5, 0]']


def assert_single_again(runtime, cursor):
    """The next execution is a single one: no call sets an attribute."""
    runtime.take_log()
    cursor.execute("UPDATE t SET a = ?", 6)
    log = runtime.take_log()
    assert log[-2] == "  1: values=[6], lens=[4]" and "SQLSetStmtAttr" not in str(log)


def test_order_of_calls_and_the_arrays(runtime, cursor):
    runtime.result(row_count=3)
    assert cursor.executemany(INSERT, BATCH) is cursor
    assert runtime.take_log() == [
        "SQLAllocHandle(3, dbc1, stmt1)",
        'SQLPrepareW(stmt1, "INSERT INTO t VALUES (@1 , @2 )", 31)',
        # Bound before the runtime knows of the batch: it sees the first row.
        "SQLBindParameter(stmt1, 1, in, ctype=-25, sqltype=-5, size=8, digits=0, buflen=8, "
        "values=[1], lens=[8])",
        "SQLBindParameter(stmt1, 2, in, ctype=-8, sqltype=-9, size=5, digits=0, buflen=5, "
        'values=["a"], lens=[1])',
        "SQLSetStmtAttr(stmt1, 22, 3)", "SQLExecute(stmt1)", "  " + AS_BOUND[0],
        "  " + AS_BOUND[1], "SQLSetStmtAttr(stmt1, 22, 1)", "SQLRowCount(stmt1, ptr)"]
    assert (cursor.rowcount, cursor.description) == (3, None)
    assert_single_again(runtime, cursor)


class Day(datetime.date):
    def __str__(self):
        return "day %d" % self.day


@pytest.mark.parametrize("column, ctype, size, values, lengths", [
    ([1, True, -2 ** 63, 2 ** 63 - 1], -25, 8, [1, 1, -2 ** 63, 2 ** 63 - 1], [8] * 4),
    ([True, False], -25, 8, [1, 0], [8, 8]), ([1.5, -0.25], 8, 8, [1.5, -0.25], [8, 8]),
    (["\U0001f600", "ab", "\u20ac\u20ac"], -8, 6, ["\U0001f600", "ab", "\u20ac\u20ac"], [4, 2, 6]),
    (["", ""], -8, 0, ["", ""], [0, 0]),
    ([datetime.date(2021, 5, 6), Day(2021, 5, 7)], -8, 10, ["2021-05-06", "day 7"], [10, 5]),
    ([datetime.datetime(2020, 1, 2, 3, 4, 5), datetime.datetime(2020, 1, 2, 3, 4, 5, 6)], -8, 26,
     ["2020-01-02 03:04:05", "2020-01-02 03:04:05.000006"], [19, 26]),
    ([datetime.time(1, 2, 3)], -8, 8, ["01:02:03"], [8]),
    ([None, None], -8, 0, ["", ""], [0, 0]),
], ids=lambda value: repr(value)[:20])
def test_columns(runtime, cursor, column, ctype, size, values, lengths):
    cursor.executemany("UPDATE t SET a = ?", [(value,) for value in column])
    log = runtime.take_log()
    assert "ctype=%d, " % ctype in log[2]
    assert "size=%d, digits=0, buflen=%d, " % (size, size) in log[2]
    shown = ['"%s"' % value if isinstance(value, str) else str(value) for value in values]
    assert "  1: values=[%s], lens=[%s]" % (", ".join(shown), str(lengths)[1:-1]) in log
    assert runtime.count("SQLSetStmtAttr") == (2 if len(column) > 1 else 0)


def test_none_in_the_first_row_hides_the_column(runtime, cursor):
    with pytest.warns(RuntimeWarning) as caught:
        cursor.executemany(INSERT, [(1, None), (2, None), (3, "lost")])
    assert [str(warning.message) for warning in caught] == [
        "The values at position [1] of executemany are not sent, since the first row has None "
        "there (the first one lost is in row [2])."]
    assert bound(runtime) == [AS_BOUND[0], '2: values=["", "", ""], lens=[0, 0, 0]']


@pytest.mark.parametrize("column, what, how, bound_as", [
    (["c", "a\0b", "\0"], "text", "whole, although execute truncates it at its NUL character",
     "a\\x00b"),
    (["\u20ac", "\u20ac\0"], "text", "whole, although execute truncates it at its NUL character",
     "\u20ac\\x00"),
    ([datetime.time(1), datetime.time(1, 2, 3, 50)], "time",
     "with its fraction of a second, which execute drops", "01:02:03.000050"),
    ([datetime.time(1), datetime.time(1, tzinfo=UTC)], "time",
     "with its time zone, which execute drops", "01:00:00+00:00"),
    ([datetime.datetime(2020, 1, 2), datetime.datetime(2020, 1, 2, tzinfo=UTC)], "datetime",
     "with its time zone, which execute drops", "2020-01-02 00:00:00+00:00")])
def test_what_execute_would_drop(runtime, cursor, column, what, how, bound_as):
    """Told once a column, before anything is sent."""
    message = "The %s at row [1], position [1] of executemany is sent %s." % (what, how)
    with raises(RuntimeWarning, message):
        cursor.executemany(INSERT, [(1, value) for value in column])
    assert runtime.take_log() == []
    with pytest.warns(RuntimeWarning) as caught:
        cursor.executemany(INSERT, [(1, value) for value in column])
    assert [str(warning.message) for warning in caught] == [message]
    assert '"%s"' % bound_as in bound(runtime)[1]


@pytest.mark.parametrize("make", [
    list, tuple, iter, collections.UserList, lambda rows: (row for row in rows),
    lambda rows: map(list, rows), lambda rows: map(collections.UserList, rows)])
def test_kinds_of_sequences(runtime, cursor, make):
    cursor.executemany(INSERT, make(BATCH))
    assert bound(runtime) == AS_BOUND


NO_SEQUENCE = "The second parameter to executemany must be a sequence, iterator, or generator."
EMPTY = "The second parameter to executemany must not be empty."
STATEMENT = "The first argument to execute must be a string or unicode query."


@pytest.mark.parametrize("arguments, message", [
    ((), "executemany() takes at least 1 argument (0 given)"),
    ((INSERT, [], []), "executemany() takes at most 2 arguments"),
    ((INSERT,), EMPTY), ((INSERT, []), EMPTY), ((INSERT, ()), EMPTY), ((INSERT, iter(())), EMPTY),
    ((b"INSERT", [(1,)]), STATEMENT), (("lone \ud800", [(1,)]), STATEMENT),
    ((INSERT, {1: 2}), NO_SEQUENCE), ((INSERT, {(1,)}), NO_SEQUENCE), ((INSERT, 5), NO_SEQUENCE),
    ((INSERT, None), NO_SEQUENCE), ((INSERT, [5]), "Row [0] of executemany is not a sequence."),
    ((INSERT, [(1, 2), {1: 2}]), "Row [1] of executemany is not a sequence.")])
def test_wrong_arguments(runtime, cursor, arguments, message):
    with raises(zelqa.ProgrammingError, message):
        cursor.executemany(*arguments)
    assert runtime.take_log() == [] and cursor.rowcount == -1


def test_iterator_that_fails(runtime, cursor):
    with raises(zelqa.ProgrammingError,
                "The second parameter to executemany is invalid.") as failure:
        cursor.executemany(INSERT, (1 / n for n in (1, 0)))
    assert isinstance(failure.value.__cause__, ZeroDivisionError)
    assert runtime.take_log() == []


OTHER_TYPE = "The value is of another type than in the first row"


@pytest.mark.parametrize("rows, message, row, position", [
    ([(1, 2), (3,)], "A value is missing", 1, 1),
    ([(1, 2), (3, 4), ()], "A value is missing", 2, 0),
    ([(1,), (3, 4)], "There is a value too many", 1, 1),
    ([(1, 2), (1, "a")], OTHER_TYPE, 1, 1), ([(1,), (None,)], OTHER_TYPE, 1, 0),
    ([(1,), (1.0,)], OTHER_TYPE, 1, 0), ([("a",), (b"a",)], OTHER_TYPE, 1, 0),
    ([(datetime.date(2020, 1, 1),), (datetime.datetime(2020, 1, 1),)], OTHER_TYPE, 1, 0),
    ([(1, 1), (2, 1), (2 ** 63, 1)], "Invalid value", 2, 0),
    ([(1, "a"), (2, "\ud800")], "Invalid value", 1, 1),
    ([(1, b"x"), (2, b"x")], None, 0, 1), ([(1j, 1), (2j, 1)], None, 0, 0)])
def test_nothing_is_executed_half(runtime, cursor, rows, message, row, position):
    expected = (zelqa.NotSupportedError, "Unsupported data type at position [%d] of arguments."
                % position) if message is None else (
        zelqa.ProgrammingError, "%s at row [%d], position [%d] of executemany." % (
            message, row, position))
    for given in (rows, iter(rows)):
        with raises(*expected):
            cursor.executemany(INSERT, given)
    assert runtime.count("SQLExecute") == 0
    assert_single_again(runtime, cursor)
