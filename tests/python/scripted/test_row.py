"""The Row object: a sequence of values and a mapping from column names to them."""

import datetime
import decimal
import sys

import pytest

from vorda import zelqa

from conftest import (BIGINT, BIT, DATE, DECIMAL, DOUBLE, GUID, REAL, SMALLINT, TIME, TIMESTAMP,
                      TINYINT, TYPE_TIMESTAMP, VARBINARY, WVARCHAR, Cell, Column, Timestamp,
                      assert_no_growth, raises)


def fetch(runtime, cursor, columns, values):
    runtime.result(*columns, rows=[values])
    return cursor.execute("SELECT *").fetchone()


@pytest.fixture
def row(runtime, cursor):
    return fetch(runtime, cursor, ["a", "b", "a"], [1, None, 3])


STAMP = Timestamp(2024, 2, 29, 13, 14, 15, 123456789)


@pytest.mark.parametrize("column, cell, value", [
    (Column("a", TINYINT), 255, 255), (Column("a", SMALLINT), -32768, -32768),
    (Column("a"), -2147483648, -2147483648), (Column("a", BIGINT), 2 ** 63 - 1, 2 ** 63 - 1),
    (Column("a", BIGINT), -2 ** 63, -2 ** 63), (Column("a", BIT), 1, True),
    (Column("a", BIT), 0, False), (Column("a", DOUBLE), 0.1, 0.1), (Column("a", REAL), 0.5, 0.5),
    (Column("a", DECIMAL), "12345678901234567890.123456789",
     decimal.Decimal("12345678901234567890.123456789")),
    (Column("a", WVARCHAR), "caf\u00e9 \U0001f600", "caf\u00e9 \U0001f600"),
    (Column("a", WVARCHAR), "", ""), (Column("a", WVARCHAR), b"a\0b", "a\0b"),
    (Column("a", GUID), "00112233-4455-6677-8899-aabbccddeeff",
     "00112233-4455-6677-8899-aabbccddeeff"),
    (Column("a", 12345), "text", "text"),
    (Column("a", DATE), STAMP, datetime.date(2024, 2, 29)),
    (Column("a", TIMESTAMP, scale=9), STAMP, datetime.datetime(2024, 2, 29, 13, 14, 15, 123456)),
    (Column("a", TIME, scale=9), STAMP, datetime.time(13, 14, 15, 123456)),
], ids=lambda value: repr(value)[:24] if not isinstance(value, Column) else str(value.description[1]))
def test_values(runtime, cursor, column, cell, value):
    got = fetch(runtime, cursor, [column, "other"], [cell, 5])
    assert got[0] == value and type(got[0]) is type(value)
    assert got["other"] == 5
    null = fetch(runtime, cursor, [column, "other"], [None, 5])
    assert tuple(null) == (None, 5)


@pytest.mark.parametrize("nanoseconds, scale, microseconds", [
    (0, 0, 0), (0, 9, 0), (999999999, 9, 999999), (999999999, 3, 999999), (1000, 6, 1),
    (999, 9, 0), (5000, 6, 5),
    # Without fraction digits a driver counts in a unit of its own.
    (5000, 0, 5000), (999999, 0, 999999), (1000000, 0, 100000), (123456789, 0, 123456),
    # Impossible ones are no valid time, but never a crash.
])
@pytest.mark.parametrize("sqltype", [TIME, TYPE_TIMESTAMP])
def test_fractions(runtime, cursor, nanoseconds, scale, microseconds, sqltype):
    stamp = Timestamp(2024, 2, 29, 1, 2, 3, nanoseconds)
    row = fetch(runtime, cursor, [Column("a", sqltype, scale=scale)], [stamp])
    assert row[0].microsecond == microseconds


@pytest.mark.parametrize("start", range(0, 1000000, 250000))
def test_every_microsecond_comes_back(runtime, cursor, start):
    runtime.result(Column("a", TIMESTAMP, scale=9),
                   rows=[[Timestamp(nanoseconds=start * 1000 + i * 1000)] for i in range(250000)])
    cursor.execute("SELECT a")
    for expected in range(start, start + 250000):
        assert cursor.fetchone()[0].microsecond == expected


@pytest.mark.parametrize("sqltype, fields", [
    (DATE, (2024, 2, 30)), (DATE, (0, 0, 0)), (DATE, (-5, 1, 1)), (DATE, (20000, 1, 1)),
    (TIMESTAMP, (2024, 1, 1, 24, 0, 0)), (TIMESTAMP, (2024, 1, 1, 1, 1, 61)),
    (TIME, (1, 1, 1, 65535, 0, 0)), (TIMESTAMP, (2024, 1, 1, 0, 0, 0, 4000000000))])
def test_impossible_dates_are_an_error(runtime, cursor, sqltype, fields):
    with pytest.raises(ValueError):
        fetch(runtime, cursor, [Column("a", sqltype, scale=9)], [Timestamp(*fields)])
    assert fetch(runtime, cursor, ["a"], [1])[0] == 1


def test_binary_is_not_supported(runtime, cursor):
    runtime.result(Column("a"), Column("b", VARBINARY), rows=[[1, b"ab"], [2, None]])
    cursor.execute("SELECT *")
    for _ in range(2):
        with raises(zelqa.NotSupportedError, "Binary type not supported yet"):
            cursor.fetchone()
    assert cursor.rowcount == 2  # counted all the same
    assert cursor.fetchone() is None


@pytest.mark.parametrize("text", ["not a number", "", "1,5"])
def test_decimal_that_is_none(runtime, cursor, text):
    with pytest.raises(decimal.InvalidOperation):
        fetch(runtime, cursor, [Column("a", DECIMAL)], [text])


def test_length_and_index(row):
    assert len(row) == 3
    assert [row[i] for i in (0, 1, 2, -1, -2, -3)] == [1, None, 3, 3, None, 1]
    assert row[True] is None

    class Index:
        def __index__(self):
            return 2
    assert row[Index()] == 3


@pytest.mark.parametrize("key, shown", [(3, 3), (-4, -4), (2 ** 31, 2 ** 31),
                                        (10 ** 30, sys.maxsize), (-10 ** 30, -sys.maxsize - 1)])
def test_index_out_of_range(row, key, shown):
    with raises(IndexError, "row index out of range index=%d len=3" % shown):
        row[key]


@pytest.mark.parametrize("key, exception, message", [
    (slice(0, 1), zelqa.NotSupportedError, "get item with slice is not supported"),
    (1.0, IndexError, "failed to get value with key type: float"),
    (None, IndexError, "failed to get value with key type: NoneType"),
    (b"a", IndexError, "failed to get value with key type: bytes"),
    ((0,), IndexError, "failed to get value with key type: tuple"),
    ("A", zelqa.ProgrammingError, "Could not find the column"),
    ("", zelqa.ProgrammingError, "Could not find the column"),
    ("lone \ud800", zelqa.ProgrammingError, "Could not find the column"),
])
def test_wrong_keys(row, key, exception, message):
    with raises(exception, message):
        row[key]


def test_names(row):
    class Name(str):
        def __eq__(self, other):
            raise KeyError("mine")
        __hash__ = str.__hash__
    assert row["a"] == 1 and row["b"] is None  # of two with one name the first
    with pytest.raises(KeyError, match="mine"):
        row[Name("a")]
    assert row.description[1][0] == "b"
    with pytest.raises(AttributeError):
        row.description = ()


def test_names_without_a_description(runtime, connection):
    """A cursor that executed nothing itself reads the rows of another one."""
    runtime.result("a", rows=[[1], [2]])
    connection.execute("SELECT a")
    row = connection.cursor().fetchone()
    assert row[0] == 1
    assert row.description is None
    with raises(zelqa.ProgrammingError, "Failed to get value without the row description"):
        row["a"]


def test_names_of_another_statement(runtime, connection):
    first, second = connection.cursor(), connection.cursor()
    runtime.result("a", "b", rows=[[1, 2]])
    first.execute("SELECT a, b")
    runtime.result("c", rows=[[3]])
    second.execute("SELECT c")
    row = first.fetchone()
    assert tuple(row) == (3,) and row["a"] == 3
    with raises(zelqa.ProgrammingError, "Could not find the column"):
        row["b"]


def test_assignment(row):
    row[0] = "new"
    row[-1] = row
    assert row["a"] == "new" and row[2] is row
    for index in (3, -4):
        with raises(IndexError, "assignment index out of range index=%d len=3"
                    % (index if index > 0 else index + 3)):
            row[index] = 1
    for wrong in ("a", slice(0, 1)):
        with pytest.raises(TypeError):
            row[wrong] = 1
    with pytest.raises(TypeError):
        del row[0]
    assert row[0] == "new"
    row[2] = None  # nothing else ends the circle


def test_membership_and_iteration(row):
    assert 1 in row and None in row and 3.0 in row and 2 not in row
    assert list(row) == [1, None, 3]
    assert list(iter(row)) == [1, None, 3] and tuple(reversed(row)) == (3, None, 1)
    first, *rest = row
    assert (first, rest) == (1, [None, 3])

    class Angry:
        def __eq__(self, other):
            raise LookupError("no")
    with pytest.raises(LookupError, match="no"):
        Angry() in row


@pytest.mark.parametrize("columns, values, shown", [
    (["a"], [1], "(1)"), (["a", "b"], [1, None], "(1, None)"),
    ([Column("a", WVARCHAR)], ["it's \u20ac \U0001f600"], "(\"it's \u20ac \U0001f600\")"),
    ([Column("a", DECIMAL), Column("b", DATE)], ["1.50", STAMP],
     "(Decimal('1.50'), datetime.date(2024, 2, 29))"),
    ([Column("a", WVARCHAR)], ["x" * 2000], "('%s')" % ("x" * 2000)),
])
def test_repr(runtime, cursor, columns, values, shown):
    row = fetch(runtime, cursor, columns, values)
    assert repr(row) == str(row) == shown


def test_repr_of_values_of_the_program(row):
    row[0], row[1], row[2] = "\ud800", [row], row
    assert repr(row) == "('\\ud800', [(...)], (...))"

    class Odd:
        def __repr__(self):
            return "\ud800\0odd"
    row[1] = Odd()
    assert repr(row) == "('\\ud800', \ud800\0odd, (...))"

    class Angry:
        def __repr__(self):
            raise LookupError("no")
    row[1] = Angry()
    for _ in range(3):
        with pytest.raises(LookupError, match="no"):
            repr(row)
    row[1] = 0
    assert repr(row) == "('\\ud800', 0, (...))"
    row[2] = None


def test_rows_in_rows(runtime, connection, cursor):
    """A chain of any length has an end, and comes to one without using up the stack."""
    runtime.result("a", rows=[[i] for i in range(500000)])
    rows = cursor.execute("SELECT a").fetchall()
    for inner, outer in zip(rows, rows[1:]):
        outer[0] = inner
    last = rows[-1]
    with pytest.raises(RecursionError):
        repr(last)
    del rows, inner, outer, last


def test_row_outlives_cursor_and_connection(runtime):
    connection = zelqa.connect("Server=there")
    runtime.result("a", Column("b", WVARCHAR), rows=[[1, "x"], [2, "y"]])
    rows = connection.execute("SELECT a, b").fetchall()
    connection.close()
    del connection
    assert [tuple(row) for row in rows] == [(1, "x"), (2, "y")]
    assert rows[1]["b"] == "y" and rows[0].description[1][0] == "b"


@pytest.mark.parametrize("indicator", [0, 1, 3, 100, 2047, 2048, 5000, 2 ** 31, 2 ** 40, -2, -3, -4,
                                       -100, -2 ** 31, 2 ** 63 - 1])
@pytest.mark.parametrize("sqltype", [WVARCHAR, DECIMAL, BIGINT, DATE, DOUBLE])
@pytest.mark.filterwarnings("ignore::RuntimeWarning")
def test_lengths_that_are_nonsense(runtime, cursor, indicator, sqltype):
    """A value, NULL or an error comes back; nothing beyond the buffer is ever read."""
    cell = {WVARCHAR: "123", DECIMAL: "123", BIGINT: 123, DATE: STAMP, DOUBLE: 123.0}[sqltype]
    try:
        value = fetch(runtime, cursor, [Column("a", sqltype), "b"], [Cell(cell, indicator), 7])
    except (zelqa.DatabaseError, decimal.InvalidOperation):
        return
    assert value["b"] == 7
    if sqltype == WVARCHAR:
        assert value[0].rstrip("\0") == "123"[:indicator if indicator >= 0 else 3]
    elif sqltype != DATE:
        assert value[0] in (123, None, 1, decimal.Decimal("0"))


def test_nothing_is_left_by_rows(runtime, cursor):
    columns = [Column("a", WVARCHAR), Column("b", DECIMAL), Column("c", TIMESTAMP), Column("d")]

    def good():
        row = fetch(runtime, cursor, columns, ["text", "1.5", STAMP, 77777])
        assert row["a"] in row and len(repr(row)) > 10 and list(row)
        row[0] = object()
        for wrong in ("zz", 99, None, slice(0)):
            with pytest.raises((zelqa.Error, IndexError)):
                row[wrong]

    def failing(values):
        with pytest.raises((zelqa.Error, ValueError, ArithmeticError)):
            fetch(runtime, cursor, columns, values)

    assert_no_growth(good)
    assert_no_growth(lambda: failing([b"\xff", "1.5", STAMP, 77777]))
    assert_no_growth(lambda: failing(["text", "no", STAMP, 77777]))
    assert_no_growth(lambda: failing(["text", "1.5", Timestamp(0, 0, 0), 77777]))
    none = sys.getrefcount(None)
    for _ in range(1000):
        fetch(runtime, cursor, columns, [None] * 4)
    assert abs(sys.getrefcount(None) - none) < 100
