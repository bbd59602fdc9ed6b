"""executemany: arrays bound column by column, one execution, and nothing half done."""

import datetime
import random
import sys

import pytest

from vorda import zelqa

from conftest import ERROR, INFO, assert_no_growth, raises

INSERT = "INSERT INTO t VALUES (?, ?)"


def bound(runtime):
    """The batch as the runtime found it in memory at the execution."""
    return [line.strip() for line in runtime.take_log() if line.startswith("  ")]


def test_order_of_calls_and_the_arrays(runtime, cursor):
    runtime.result(row_count=3)
    assert cursor.executemany(INSERT, [(1, "a"), (2, "caf\u00e9"), (3, "")]) is cursor
    assert runtime.take_log() == [
        "SQLAllocHandle(3, dbc1, stmt1)",
        'SQLPrepareW(stmt1, "INSERT INTO t VALUES (@1 , @2 )", 31)',
        # Bound before the runtime knows of the batch: it sees the first row.
        "SQLBindParameter(stmt1, 1, in, ctype=-25, sqltype=-5, size=8, digits=0, buflen=8, "
        "values=[1], lens=[8])",
        "SQLBindParameter(stmt1, 2, in, ctype=-8, sqltype=-9, size=5, digits=0, buflen=5, "
        'values=["a"], lens=[1])',
        "SQLSetStmtAttr(stmt1, 22, 3)",
        "SQLExecute(stmt1)",
        "  1: values=[1, 2, 3], lens=[8, 8, 8]",
        '  2: values=["a", "caf\u00e9", ""], lens=[1, 5, 0]',
        "SQLSetStmtAttr(stmt1, 22, 1)",
        "SQLRowCount(stmt1, ptr)",
    ]
    assert (cursor.rowcount, cursor.description) == (3, None)
    # The statement after it is a single one again: no call sets an attribute.
    cursor.execute("UPDATE t SET a = ?", 1)
    assert runtime.take_calls() == ["SQLFreeStmt", "SQLAllocHandle", "SQLPrepareW",
                                    "SQLBindParameter", "SQLExecute", "SQLRowCount"]


class Text(str):
    pass


class Day(datetime.date):
    def __str__(self):
        return "day %d" % self.day


@pytest.mark.parametrize("column, ctype, size, values, lengths", [
    ([1, True, -2 ** 63, 2 ** 63 - 1], -25, 8, [1, 1, -2 ** 63, 2 ** 63 - 1], [8] * 4),
    ([True, False], -25, 8, [1, 0], [8, 8]),
    ([1.5, -0.25], 8, 8, [1.5, -0.25], [8, 8]),
    (["\U0001f600", "ab", Text("\u20ac\u20ac")], -8, 6, ["\U0001f600", "ab", "\u20ac\u20ac"],
     [4, 2, 6]),
    (["", ""], -8, 0, ["", ""], [0, 0]),
    (["a\0b", "c"], -8, 3, ["a\\x00b", "c"], [3, 1]),
    ([datetime.date(2021, 5, 6), Day(2021, 5, 7)], -8, 10, ["2021-05-06", "day 7"], [10, 5]),
    ([datetime.datetime(2020, 1, 2, 3, 4, 5), datetime.datetime(2020, 1, 2, 3, 4, 5, 6)], -8, 26,
     ["2020-01-02 03:04:05", "2020-01-02 03:04:05.000006"], [19, 26]),
    ([datetime.time(1, 2, 3), datetime.time(1, 2, 3, 50)], -8, 15,
     ["01:02:03", "01:02:03.000050"], [8, 15]),
    ([None, None, None], -8, 0, ["", "", ""], [0, 0, 0]),
], ids=lambda value: repr(value)[:20] if isinstance(value, list) else "")
def test_columns(runtime, cursor, column, ctype, size, values, lengths):
    cursor.executemany("UPDATE t SET a = ?", [(value,) for value in column])
    log = runtime.take_log()
    assert "ctype=%d, " % ctype in log[2] and "size=%d, digits=0, buflen=%d, " % (size, size) in log[2]
    shown = ['"%s"' % value if isinstance(value, str) else str(value) for value in values]
    assert "  1: values=[%s], lens=[%s]" % (
        ", ".join(shown), ", ".join(str(length) for length in lengths)) in log


def test_none_in_the_first_row_hides_the_column(runtime, cursor):
    with pytest.warns(RuntimeWarning) as caught:
        cursor.executemany(INSERT, [(1, None), (2, None), (3, "lost")])
    assert [str(warning.message) for warning in caught] == [
        "The values at position [1] of executemany are not sent, since the first row has None "
        "there (the first one lost is in row [2])."]
    assert bound(runtime) == ["1: values=[1, 2, 3], lens=[8, 8, 8]",
                              '2: values=["", "", ""], lens=[0, 0, 0]']


@pytest.mark.parametrize("make", [
    list, tuple, iter, lambda rows: (row for row in rows), lambda rows: map(tuple, rows),
    lambda rows: dict.fromkeys(rows).keys().__iter__(), lambda rows: Sequence(rows)])
@pytest.mark.parametrize("make_row", [tuple, list, lambda row: Sequence(row)])
def test_kinds_of_sequences(runtime, cursor, make, make_row):
    rows = [(1, "a"), (2, "b")]
    given = make(rows) if make_row is tuple else make([make_row(row) for row in rows]) \
        if make in (list, tuple, iter) else make(rows)
    cursor.executemany(INSERT, given)
    assert bound(runtime) == ["1: values=[1, 2], lens=[8, 8]", '2: values=["a", "b"], lens=[1, 1]']


class Sequence:
    """The least that is a sequence."""

    def __init__(self, items):
        self.items = list(items)

    def __len__(self):
        return len(self.items)

    def __getitem__(self, index):
        return self.items[index]


def test_rows_of_a_query_can_be_sent(runtime, connection, cursor):
    runtime.result("a", "b", rows=[[1, 2], [3, 4]])
    rows = cursor.execute("SELECT a, b").fetchall()
    runtime.take_log()
    connection.cursor().executemany(INSERT, rows)
    assert bound(runtime) == ["1: values=[1, 3], lens=[8, 8]", "2: values=[2, 4], lens=[8, 8]"]


def test_rows_without_values(runtime, cursor):
    cursor.executemany("DELETE FROM t", [(), ()])
    assert runtime.take_log()[1:] == ['SQLPrepareW(stmt1, "DELETE FROM t", 13)',
                                      "SQLSetStmtAttr(stmt1, 22, 2)", "SQLExecute(stmt1)",
                                      "SQLSetStmtAttr(stmt1, 22, 1)", "SQLRowCount(stmt1, ptr)"]


def test_one_row_needs_no_attribute(runtime, cursor):
    cursor.executemany("UPDATE t SET a = ?", [(5,)])
    assert runtime.take_calls() == ["SQLAllocHandle", "SQLPrepareW", "SQLBindParameter",
                                    "SQLExecute", "SQLRowCount"]


def test_description_is_left_as_it_was(runtime, cursor):
    runtime.result("a")
    kept = cursor.execute("SELECT a").description
    runtime.result("b", rows=[[1]])
    cursor.executemany("SELECT b FROM t WHERE c = ?", [(1,), (2,)])
    assert cursor.description is kept


NO_SEQUENCE = "The second parameter to executemany must be a sequence, iterator, or generator."
EMPTY = "The second parameter to executemany must not be empty."


@pytest.mark.parametrize("arguments, message", [
    ((), "executemany() takes at least 1 argument (0 given)"),
    ((INSERT,), EMPTY), ((INSERT, []), EMPTY), ((INSERT, ()), EMPTY), ((INSERT, iter(())), EMPTY),
    ((INSERT, [], []), "executemany() takes at most 2 arguments"),
    ((b"INSERT", [(1,)]), "The first argument to execute must be a string or unicode query."),
    (("lone \ud800", [(1,)]), "The first argument to execute must be a string or unicode query."),
    ((INSERT, {1: 2}), NO_SEQUENCE), ((INSERT, {(1,)}), NO_SEQUENCE), ((INSERT, 5), NO_SEQUENCE),
    ((INSERT, None), NO_SEQUENCE), ((INSERT, object()), NO_SEQUENCE),
    ((INSERT, [5]), "Row [0] of executemany is not a sequence."),
    ((INSERT, [(1, 2), {1: 2}]), "Row [1] of executemany is not a sequence."),
])
def test_wrong_arguments(runtime, cursor, arguments, message):
    with raises(zelqa.ProgrammingError, message):
        cursor.executemany(*arguments)
    assert runtime.take_log() == [] and cursor.rowcount == -1


def broken_generator():
    yield (1, 2)
    raise LookupError("mine")


def test_iterator_that_fails(runtime, cursor):
    with raises(zelqa.ProgrammingError,
                "The second parameter to executemany is invalid.") as failure:
        cursor.executemany(INSERT, broken_generator())
    assert isinstance(failure.value.__cause__, LookupError)
    assert runtime.take_log() == []


OTHER_TYPE = "The value is of another type than in the first row at row [%d], position [%d] of executemany."


@pytest.mark.parametrize("rows, message", [
    ([(1, 2), (3,)], "A value is missing at row [1], position [1] of executemany."),
    ([(1, 2), (3, 4), ()], "A value is missing at row [2], position [0] of executemany."),
    ([(1,), (3, 4)], "There is a value too many at row [1], position [1] of executemany."),
    ([(1, 2), (1, "a")], OTHER_TYPE % (1, 1)), ([(1,), (None,)], OTHER_TYPE % (1, 0)),
    ([(1,), (1.0,)], OTHER_TYPE % (1, 0)), ([("a",), (b"a",)], OTHER_TYPE % (1, 0)),
    ([(datetime.date(2020, 1, 1),), (datetime.datetime(2020, 1, 1),)], OTHER_TYPE % (1, 0)),
    ([(1,), (2,), (2 ** 63,)], "Invalid value at row [2], position [0] of executemany."),
    ([(1, "a"), (2, "\ud800")], "Invalid value at row [1], position [1] of executemany."),
])
def test_nothing_is_executed_half(runtime, cursor, rows, message):
    for given in (rows, iter(rows)):
        with raises(zelqa.ProgrammingError, message):
            cursor.executemany(INSERT, given)
    assert runtime.count("SQLExecute") == 0
    assert_single_again(runtime, cursor)


def assert_single_again(runtime, cursor):
    attributes = runtime.count("SQLSetStmtAttr")
    runtime.take_log()
    cursor.execute("UPDATE t SET a = ?", 6)
    assert bound(runtime) == ["1: values=[6], lens=[4]"]
    assert runtime.count("SQLSetStmtAttr") == attributes


@pytest.mark.parametrize("value", [b"bytes", object(), [1], 1j])
def test_unsupported_type(runtime, cursor, value):
    with raises(zelqa.NotSupportedError, "Unsupported data type at position [1] of arguments."):
        cursor.executemany(INSERT, [(1, value), (2, value)])
    assert runtime.count("SQLExecute") == 0
    assert_single_again(runtime, cursor)


@pytest.mark.parametrize("step", ["SQLAllocHandle", "SQLPrepareW", "SQLSetStmtAttr", "SQLExecute",
                                  "SQLRowCount"])
@pytest.mark.parametrize("message", ["it broke", None])
def test_failure_at_each_step(runtime, cursor, step, message):
    runtime.fail_next(step, message)
    with raises(zelqa.DatabaseError, message or "Unable to retrieve the error"):
        cursor.executemany(INSERT, [(1, "a"), (2, "b")])
    assert cursor.rowcount == -1
    assert (runtime.count("SQLExecute") == 0) == (step not in ("SQLExecute", "SQLRowCount"))
    runtime.clear_answers()
    assert_single_again(runtime, cursor)
    cursor.executemany(INSERT, [(1, "a"), (2, "b")])
    assert bound(runtime) == ["1: values=[1, 2], lens=[8, 8]", '2: values=["a", "b"], lens=[1, 1]']


@pytest.mark.parametrize("step", ["SQLPrepareW", "SQLBindParameter", "SQLSetStmtAttr",
                                  "SQLExecute", "SQLRowCount"])
def test_information_at_each_step_goes_on(runtime, cursor, step):
    runtime.answer_after(step, INFO, 1)
    runtime.diag("by the way")
    runtime.result(row_count=2)
    assert cursor.executemany(INSERT, [(1, "a"), (2, "b")]).rowcount == 2


def test_random_batches_arrive_as_they_are(runtime, cursor):
    """Whatever the widths of the texts: every slot starts and ends where it should."""
    pick = random.Random(20240229)
    alphabet = ["a", "\u00e9", "\u20ac", "\U0001f600"]
    for _ in range(150):
        rows = [("".join(pick.choices(alphabet, k=pick.randrange(12))), pick.randrange(-2 ** 63, 2 ** 63),
                 "".join(pick.choices(alphabet, k=pick.randrange(4))), pick.uniform(-1e9, 1e9))
                for _ in range(pick.randrange(1, 40))]
        runtime.take_log()
        cursor.executemany("INSERT INTO t VALUES (?, ?, ?, ?)", rows)
        expected = []
        for number, column in enumerate(zip(*rows), 1):
            texts = [value for value in column if isinstance(value, str)]
            shown = ['"%s"' % text for text in texts] or [number_text(value) for value in column]
            lengths = [len(text.encode()) for text in texts] or [8] * len(rows)
            expected.append("%d: values=[%s], lens=[%s]" % (
                number, ", ".join(shown), ", ".join(str(length) for length in lengths)))
        got = bound(runtime)
        assert got[:3] == expected[:3]
        assert [float(x) for x in got[3].split("[")[1].split("]")[0].split(",")] == [r[3] for r in rows]


def number_text(value):
    return str(value)


def test_large_batch(runtime, cursor):
    count = 20000
    cursor.executemany(INSERT, ((i, "text %d" % i) for i in range(count)))
    log = bound(runtime)
    assert log[0].startswith("1: values=[0, 1, 2, ")
    assert '"text %d"], lens=[6, 6, ' % (count - 1) in log[1]


def test_nothing_is_left_by_batches(runtime, cursor):
    rows = [(70000 + i, "text %d" % i, datetime.date(2024, 1, 1 + i), None, 1.5) for i in range(20)]
    before = [sys.getrefcount(value) for row in rows for value in row[:3]]

    def run(sql, given):
        try:
            cursor.executemany(sql, given)
        except zelqa.Error:
            pass

    for given in (lambda: rows, lambda: iter(rows), lambda: rows + [(1,)], lambda: rows + [[b"x"] * 5],
                  lambda: [(2 ** 70,)], lambda: [("\ud800",)], lambda: [(b"x",)], broken_generator,
                  lambda: [], lambda: 5):
        assert_no_growth(lambda: run(INSERT, given()), 200)
    runtime.answer("SQLExecute", ERROR)
    assert_no_growth(lambda: run(INSERT, rows), 200)
    runtime.clear_answers()
    assert [sys.getrefcount(value) for row in rows for value in row[:3]] == before
