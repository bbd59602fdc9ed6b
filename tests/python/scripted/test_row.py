"""The Row object: a sequence of values and a mapping from column names to them."""

import datetime
import decimal
import sys

import pytest

from vorda import zelqa

from conftest import (BIGINT, BIT, DATE, DECIMAL, DOUBLE, GUID, REAL, SANITIZED, SMALLINT, TIME,
                      TIMESTAMP, TINYINT, TYPE_TIMESTAMP, VARBINARY, WVARCHAR, Column, Timestamp,
                      raises)

STAMP = Timestamp(2024, 2, 29, 13, 14, 15, 123456789)


def fetch(runtime, cursor, columns, values):
    runtime.result(*columns, rows=[values])
    return cursor.execute("SELECT *").fetchone()


@pytest.fixture
def row(runtime, cursor):
    return fetch(runtime, cursor, ["a", "b", "a"], [1, None, 3])


@pytest.mark.parametrize("sqltype, cell, value", [
    (TINYINT, 255, 255), (SMALLINT, -32768, -32768), (4, -2 ** 31, -2 ** 31),
    (BIGINT, 2 ** 63 - 1, 2 ** 63 - 1), (BIGINT, -2 ** 63, -2 ** 63), (BIT, 1, True),
    (BIT, 0, False),
    (DOUBLE, 0.1, 0.1), (REAL, 0.5, 0.5), (DECIMAL, "12345678901234567890.123456789",
                                           decimal.Decimal("12345678901234567890.123456789")),
    (WVARCHAR, "\ufeff\u00e9 \U0010ffff", "\ufeff\u00e9 \U0010ffff"), (WVARCHAR, "", ""),
    (WVARCHAR, b"a\0b", "a\0b"), (GUID, "00112233-4455", "00112233-4455"), (12345, "text", "text"),
    (DATE, STAMP, datetime.date(2024, 2, 29)), (TIME, STAMP, datetime.time(13, 14, 15, 123456)),
    (TIMESTAMP, STAMP, datetime.datetime(2024, 2, 29, 13, 14, 15, 123456))])
def test_values(runtime, cursor, sqltype, cell, value):
    columns = [Column("a", sqltype, scale=9), "other"]
    got = fetch(runtime, cursor, columns, [cell, 5])
    assert got[0] == value and type(got[0]) is type(value) and got["other"] == 5
    assert tuple(fetch(runtime, cursor, columns, [None, 5])) == (None, 5)


@pytest.mark.parametrize("sqltype", [TIME, TYPE_TIMESTAMP])
def test_fractions(runtime, cursor, sqltype):
    fractions = [(9, each * 1000 + 999, each) for each in range(0, 1000000, 997)] + [
        (3, 999999999, 999999), (6, 1000, 1), (9, 0, 0),
        # Without fraction digits a driver counts in a unit of its own.
        (0, 0, 0), (0, 5000, 5000), (0, 999999, 999999), (0, 1000000, 100000),
        (0, 123456789, 123456)]
    for scale, nanoseconds, microseconds in fractions:
        stamp = Timestamp(2024, 2, 29, 1, 2, 3, nanoseconds)
        row = fetch(runtime, cursor, [Column("a", sqltype, scale=scale)], [stamp])
        assert row[0].microsecond == microseconds


@pytest.mark.parametrize("sqltype, cell, exception", [
    (DATE, Timestamp(2024, 2, 30), ValueError), (DATE, Timestamp(0, 0, 0), ValueError),
    (DATE, Timestamp(-5, 1, 1), ValueError), (TIME, Timestamp(1, 1, 1, 65535), ValueError),
    (TIMESTAMP, Timestamp(2024, 1, 1, 24), ValueError),
    (TIMESTAMP, Timestamp(2024, 1, 1, 0, 0, 0, 4000000000), ValueError),
    (DECIMAL, "not a number", decimal.InvalidOperation), (DECIMAL, "", decimal.InvalidOperation),
    (VARBINARY, b"ab", zelqa.NotSupportedError), (VARBINARY, None, zelqa.NotSupportedError)])
def test_values_that_cannot_be_made(runtime, cursor, sqltype, cell, exception):
    runtime.result("n", Column("a", sqltype, scale=9), rows=[[1, cell], [2, cell]])
    cursor.execute("SELECT n, a")
    for counted in (1, 2):  # counted all the same
        with pytest.raises(exception) as failure:
            cursor.fetchone()
        assert cursor.rowcount == counted
    if exception is zelqa.NotSupportedError:
        assert str(failure.value) == "Binary type not supported yet"
    assert cursor.fetchone() is None


def test_length_and_index(row):
    class Index:
        def __index__(self):
            return 2
    assert len(row) == 3
    assert [row[i] for i in (0, 1, 2, -1, -2, -3, True)] == [1, None, 3, 3, None, 1, None]
    assert row[Index()] == 3
    for key, shown in ((3, 3), (-4, -4), (2 ** 31, 2 ** 31), (10 ** 30, sys.maxsize)):
        with raises(IndexError, "row index out of range index=%d len=3" % shown):
            row[key]


@pytest.mark.parametrize("key, exception, message", [
    (slice(0, 1), zelqa.NotSupportedError, "get item with slice is not supported"),
    (1.0, IndexError, "failed to get value with key type: float"),
    (None, IndexError, "failed to get value with key type: NoneType"),
    (b"a", IndexError, "failed to get value with key type: bytes"),
    ("A", zelqa.ProgrammingError, "Could not find the column"),
    ("", zelqa.ProgrammingError, "Could not find the column"),
    ("lone \ud800", zelqa.ProgrammingError, "Could not find the column")])
def test_wrong_keys(row, key, exception, message):
    with raises(exception, message):
        row[key]


def test_names(runtime, connection):
    first, second = connection.cursor(), connection.cursor()
    row = fetch(runtime, first, ["a", "b", "a"], [1, None, 3])
    assert row["a"] == 1 and row["b"] is None  # of two with one name the first
    assert row.description is first.description
    with pytest.raises(AttributeError):
        row.description = ()
    # All cursors read the rows of the statement that ran last, each with its own description.
    runtime.result("c", rows=[[8], [9]])
    second.execute("SELECT c")
    row = first.fetchone()
    assert tuple(row) == (8,) and row["a"] == 8
    with raises(zelqa.ProgrammingError, "Could not find the column"):
        row["b"]
    row = connection.cursor().fetchone()
    assert row[0] == 9 and row.description is None
    with raises(zelqa.ProgrammingError, "Failed to get value without the row description"):
        row["c"]


def test_assignment(row):
    row[0] = "new"
    row[-1] = row
    assert row["a"] == "new" and row[2] is row
    for index, shown in ((3, 3), (-4, -1)):
        with raises(IndexError, "assignment index out of range index=%d len=3" % shown):
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
    assert list(row) == [1, None, 3] and tuple(reversed(row)) == (3, None, 1)

    class Angry:
        def __eq__(self, other):
            raise LookupError("no")
    with pytest.raises(LookupError, match="no"):
        Angry() in row


def test_repr(runtime, cursor, row):
    for values, shown in (([1], "(1)"),
                          (["it's \u20ac \U0001f600"], "(\"it's \u20ac \U0001f600\")"),
                          (["x" * 2000, "1.50"], "('%s', Decimal('1.50'))" % ("x" * 2000))):
        columns = [Column("a", WVARCHAR if values[0] != 1 else BIGINT), Column("b", DECIMAL)]
        got = fetch(runtime, cursor, columns[:len(values)], values)
        assert repr(got) == str(got) == shown
    row[1], row[2] = [row], row
    assert repr(row) == "(1, [(...)], (...))"
    row[1] = row[2] = None


def test_rows_in_rows(runtime, connection, cursor):
    """A chain of any length comes to its end without using up the stack."""
    runtime.result("a", rows=([i] for i in range(100000 if SANITIZED else 500000)))
    rows = cursor.execute("SELECT a").fetchall()
    for inner, outer in zip(rows, rows[1:]):
        outer[0] = inner
    last = rows[-1]
    with pytest.raises(RecursionError):
        repr(last)
    del rows, inner, outer, last
