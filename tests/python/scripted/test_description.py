"""The cursor's description, and what a driver may say about its columns."""

import datetime
import decimal

import pytest

from conftest import (BIGINT, BIT, CHAR, DATE, DECIMAL, DOUBLE, FLOAT, GUID, INTEGER, NUMERIC, REAL,
                      SMALLINT, TIME, TIMESTAMP, TINYINT, TYPE_DATE, TYPE_TIME, TYPE_TIMESTAMP,
                      VARBINARY, VARCHAR, WVARCHAR, Column)


@pytest.mark.parametrize("type_code, sqltypes", [
    (bool, [BIT]), (int, [TINYINT, SMALLINT, INTEGER, BIGINT]), (float, [FLOAT, REAL, DOUBLE]),
    (decimal.Decimal, [NUMERIC, DECIMAL]), (bytearray, [-2, VARBINARY]),
    (str, [CHAR, VARCHAR, WVARCHAR, GUID, -4, 0, 12345, -32768]),
    (datetime.date, [DATE, TYPE_DATE]), (datetime.time, [TIME, TYPE_TIME]),
    (datetime.datetime, [TIMESTAMP, TYPE_TIMESTAMP])])
def test_type_codes(runtime, cursor, type_code, sqltypes):
    runtime.result(*[Column("a", sqltype, 30, 10, 2) for sqltype in sqltypes])
    cursor.execute("SELECT a")
    assert cursor.description == (("a", type_code, None, 10, 10, 2, True),) * len(sqltypes)


def test_items(runtime, cursor):
    runtime.result(Column("id", INTEGER, 11, 10, 0, nullable=0),
                   Column("na\u00efve \U0001f600", WVARCHAR, 80, 40, 0, nullable=2),
                   Column("", DECIMAL, 2 ** 31 - 1, 32767, -32768))
    described = cursor.execute("SELECT *").description
    assert described == (("id", int, None, 10, 10, 0, False),
                         ("na\u00efve \U0001f600", str, None, 40, 40, 0, True),
                         ("", decimal.Decimal, None, 32767, 32767, -32768, True))
    assert {type(item) for item in described + (described,)} == {tuple}
    assert [item[6] for item in described] == [False, True, True]  # no numbers that only equal them
    for run in (cursor.execute, lambda sql: cursor.executemany(sql, [(), ()])):
        run("SELECT without columns")
        assert cursor.description is described
    runtime.result("b")
    assert cursor.execute("SELECT b").description[0][0] == "b" and described[0][0] == "id"


@pytest.mark.parametrize("changed", [
    ("b", INTEGER, 11, 10, 0, 1), ("a", WVARCHAR, 11, 10, 0, 1), ("a", INTEGER, 11, 9, 0, 1),
    ("a", INTEGER, 11, 10, 2, 1), ("a", INTEGER, 11, 10, 0, 0)])
def test_a_change_of_any_item_shows(runtime, cursor, changed):
    def described(*columns):
        runtime.result(*[Column(*column) for column in columns])
        return cursor.execute("SELECT a").description
    first = ("a", INTEGER, 11, 10, 0, 1)
    assert described(first) == described(first) != described(changed)
    assert len(described(changed, changed)) == 2


@pytest.mark.parametrize("name, reported, shown", [
    ("\u20ac" * 60, 180, "\u20ac" * 42 + "\ufffd"), (b"caf\xe9", 4, "caf\ufffd"),
    ("x" * 128, 128, "x" * 127), ("x" * 129, 32767, "x" * 127), ("abcdef", 3, "abc"),
    ("abcdef", -32768, "")])
def test_names_never_fail(runtime, cursor, name, reported, shown):
    runtime.result(Column(name), rows=[[7]])
    runtime._library.scripted_column_name_length(reported)
    assert cursor.execute("SELECT a").description[0][0] == shown
    assert cursor.fetchone()[shown] == 7
