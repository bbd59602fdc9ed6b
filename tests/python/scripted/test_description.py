"""The cursor's description, and what a driver may say about its columns."""

import datetime
import decimal
import sys
import threading
import types
import uuid

import pytest

from vorda import zelqa

from conftest import (BIGINT, BIT, CHAR, DATE, DECIMAL, DOUBLE, FLOAT, GUID, INTEGER, NUMERIC, REAL,
                      SMALLINT, TIME, TIMESTAMP, TINYINT, TYPE_DATE, TYPE_TIME, TYPE_TIMESTAMP,
                      VARBINARY, VARCHAR, WVARCHAR, Column, assert_no_growth)


@pytest.mark.parametrize("sqltype, type_code", [
    (BIT, bool), (TINYINT, int), (SMALLINT, int), (INTEGER, int), (BIGINT, int),
    (FLOAT, float), (REAL, float), (DOUBLE, float),
    (NUMERIC, decimal.Decimal), (DECIMAL, decimal.Decimal),
    (CHAR, str), (VARCHAR, str), (WVARCHAR, str), (GUID, str),
    (-2, bytearray), (VARBINARY, bytearray), (-4, str),
    (DATE, datetime.date), (TYPE_DATE, datetime.date), (TIME, datetime.time),
    (TYPE_TIME, datetime.time), (TIMESTAMP, datetime.datetime),
    (TYPE_TIMESTAMP, datetime.datetime), (0, str), (12345, str), (-32768, str)])
def test_type_codes(runtime, cursor, sqltype, type_code):
    runtime.result(Column("a", sqltype, 30, 10, 2))
    cursor.execute("SELECT a")
    assert cursor.description == (("a", type_code, None, 10, 10, 2, True),)
    assert cursor.description[0][1] is type_code


def test_all_seven_items(runtime, cursor):
    runtime.result(Column("id", INTEGER, 11, 10, 0, nullable=0),
                   Column("na\u00efve \U0001f600", WVARCHAR, 80, 40, 0, nullable=2),
                   Column("", DECIMAL, 21, 19, 4))
    cursor.execute("SELECT *")
    assert cursor.description == (
        ("id", int, None, 10, 10, 0, False),
        ("na\u00efve \U0001f600", str, None, 40, 40, 0, True),
        ("", decimal.Decimal, None, 19, 19, 4, True))
    assert type(cursor.description) is tuple
    assert all(type(item) is tuple and item[6] in (True, False) for item in cursor.description)


def test_description_stays_after_a_statement_without_columns(runtime, cursor):
    runtime.result("a")
    cursor.execute("SELECT a")
    kept = cursor.description
    for run in (lambda: cursor.execute("DELETE FROM t"), lambda: cursor.execute("SELECT 1"),
                lambda: cursor.executemany("DELETE FROM t WHERE a = ?", [(1,), (2,)])):
        run()
        assert cursor.description is kept
    runtime.result("b")
    cursor.execute("SELECT b")
    assert kept[0][0] == "a" and cursor.description[0][0] == "b"


@pytest.mark.parametrize("name, reported, shown", [
    ("x" * 127, None, "x" * 127),
    ("x" * 128, None, "x" * 127),
    ("x" * 5000, None, "x" * 127),
    ("\u20ac" * 60, None, "\u20ac" * 42 + "\ufffd"),  # cut inside a character
    (b"caf\xe9", None, "caf\ufffd"),
    ("abc", 2, "ab"), ("abc", 0, ""), ("abc", -3, ""), ("abc", 30000, "abc"),
])
def test_names_never_fail(runtime, cursor, name, reported, shown):
    runtime.result(Column(name, name_length=reported), rows=[[7]])
    cursor.execute("SELECT a")
    assert cursor.description[0][0] == shown
    assert cursor.fetchone()[shown] == 7


def test_many_columns(runtime, cursor):
    names = ["c%d" % i for i in range(2000)]
    runtime.result(*names, rows=[list(range(2000))])
    cursor.execute("SELECT *")
    assert [item[0] for item in cursor.description] == names
    row = cursor.fetchone()
    assert list(row) == list(range(2000)) and row["c1999"] == 1999


def test_numbers_are_those_of_sixteen_bits(runtime, cursor):
    """What travels in 16 bits comes out as the driver said it, or at least as a number."""
    runtime.result(Column("a", DECIMAL, 2 ** 31 - 1, 32767, -32768))
    cursor.execute("SELECT a")
    assert cursor.description[0][2:6] == (None, 32767, 32767, -32768)
    runtime.result(Column("a", DECIMAL, -1, 2 ** 31 - 1, -1))
    cursor.execute("SELECT a")
    assert cursor.description[0][5] == -1


def in_a_new_thread(function):
    """Classes of the standard library are looked up once a thread."""
    outcome = []

    def run():
        try:
            outcome.append(function())
        except BaseException as error:
            outcome.append(error)

    thread = threading.Thread(target=run)
    thread.start()
    thread.join()
    return outcome[0]


def test_class_that_cannot_be_imported(runtime, cursor, monkeypatch):
    runtime.result(Column("before"))
    cursor.execute("SELECT before")
    described = cursor.description
    runtime.result(Column("a", DECIMAL))
    monkeypatch.setitem(sys.modules, "decimal", None)
    error = in_a_new_thread(lambda: cursor.execute("SELECT a"))
    assert isinstance(error, ImportError)
    assert cursor.description is described
    monkeypatch.setitem(sys.modules, "decimal", types.ModuleType("decimal"))
    runtime.result(Column("a", DECIMAL))
    assert isinstance(in_a_new_thread(lambda: cursor.execute("SELECT a")), AttributeError)


def test_classes_are_kept_by_thread(runtime, cursor, monkeypatch):
    runtime.result(Column("a", DECIMAL), rows=[["1.5"], ["2.5"]])
    cursor.execute("SELECT a")
    assert cursor.fetchone()[0] == decimal.Decimal("1.5")
    monkeypatch.setitem(sys.modules, "decimal", None)
    assert cursor.fetchone()[0] == decimal.Decimal("2.5")
    assert uuid.UUID not in [item[1] for item in cursor.description]


def test_description_outlives_everything(runtime):
    runtime.result(Column("a", DECIMAL, 1, 2, 3))
    connection = zelqa.connect("Server=there")
    cursor = connection.execute("SELECT a")
    described = cursor.description
    cursor.close()
    connection.close()
    del cursor, connection
    assert described == (("a", decimal.Decimal, None, 2, 2, 3, True),)


def test_nothing_is_left_by_describing(runtime, cursor):
    counted = (str, int, decimal.Decimal, datetime.date)

    def run():
        runtime.result(Column("text", WVARCHAR), Column("n"), Column("d", DECIMAL),
                       Column("day", DATE))
        cursor.execute("SELECT *")
        assert len(cursor.description) == 4

    run()
    before = [sys.getrefcount(each) for each in counted]
    assert_no_growth(run)
    assert [sys.getrefcount(each) for each in counted] == before
