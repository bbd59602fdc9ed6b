"""Cursor.execute: what is sent, byte for byte and in which order, and every way to fail."""

import ctypes
import datetime
import decimal
import warnings

import pytest

from vorda import zelqa

from conftest import bound, raises, sent

DESCRIBED = ["SQLColAttributeW"] * 7 + ["SQLBindCol"]
STATEMENT = "The first argument to execute must be a string or unicode query."
UTC = datetime.timezone.utc


class Whole(int):
    def __index__(self):
        raise AssertionError("the value itself counts")


INT, BIGINT, DOUBLE, TEXT = (4, 4, 4), (-25, -5, 8), (8, 8, 8), (-8, -9)


@pytest.mark.parametrize("value, binding, text", [
    # value, (C type, SQL type, size of the slot), text of the value at the execution
    ("", TEXT + (0,), '""'), ("plain", TEXT + (5,), '"plain"'), (None, TEXT + (0,), '""'),
    (type("Text", (str,), {})("\u00e9\u20ac\U0001f600"), TEXT + (9,), '"\u00e9\u20ac\U0001f600"'),
    ("x" * 100000, TEXT + (100000,), '"%s"' % ("x" * 100000)),
    (0, INT, "0"), (2 ** 31 - 1, INT, "2147483647"), (-2 ** 31, INT, "-2147483648"),
    (Whole(7), INT, "7"), (True, INT, "1"), (False, INT, "0"),
    (2 ** 31, BIGINT, "2147483648"), (-2 ** 31 - 1, BIGINT, "-2147483649"),
    (2 ** 63 - 1, BIGINT, "9223372036854775807"), (-2 ** 63, BIGINT, "-9223372036854775808"),
    (1.5, DOUBLE, "1.5"), (0.1, DOUBLE, "0.1"), (float("inf"), DOUBLE, "inf"),
    (datetime.date(1, 2, 3), (9, 9, 6), "0001-02-03"),
    (datetime.datetime(9999, 12, 31, 23, 59, 59), (11, 11, 16), "9999-12-31 23:59:59.000000000"),
    (datetime.datetime(1, 1, 1, 0, 0, 0, 123456), (11, 11, 16), "0001-01-01 00:00:00.123456000"),
    (datetime.time(23, 59, 58), (10, 10, 6), "23:59:58"),
], ids=lambda value: repr(value)[:20])
def test_binding(runtime, cursor, value, binding, text):
    assert cursor.execute("UPDATE t SET a = ?", value) is cursor
    log, values = runtime.take_log(), "values=[%s], lens=[%d]" % (text, binding[2])
    assert log[2] == "SQLBindParameter(stmt1, 1, in, ctype=%d, sqltype=%d, size=%d, digits=0, " \
        "buflen=%d, %s)" % (binding + (binding[2], values))
    assert log[4] == "  1: " + values


def test_order_of_calls(runtime, connection, cursor):
    runtime.result("a", rows=[[1]])
    cursor.execute("  SELECT a FROM t -- ?")
    assert runtime.take_log() == [
        "SQLAllocHandle(3, dbc1, stmt1)", 'SQLExecDirectW(stmt1, "SELECT a FROM t -- ?", 20)',
        "SQLColAttributeW(stmt1, 1, 0, null, 0, null, ptr)",
        "SQLColAttributeW(stmt1, 1, 1, ptr, 128, ptr, null)"] + [
            "SQLColAttributeW(stmt1, 1, %d, null, 0, null, ptr)" % field
            for field in (2, 3, 4, 5, 7)] + [
                "SQLBindCol(stmt1, 1, 4, ptr, 0, ptr)", "SQLRowCount(stmt1, ptr)"]
    runtime.result("a")
    cursor.execute("SELECT a FROM t WHERE a = :a AND b = @b", 1, "x")
    # The rows of the statement before it are there until this one is executed.
    assert runtime.take_calls() == [
        "SQLAllocHandle", "SQLPrepareW", "SQLBindParameter", "SQLBindParameter", "SQLFreeStmt",
        "SQLExecute", *DESCRIBED, "SQLRowCount"]
    cursor.execute("DELETE FROM t WHERE a = ?", 1)
    runtime.take_log()
    cursor.execute("DELETE FROM t WHERE a = ?", 2)
    assert runtime.take_calls() == ["SQLFreeStmt", "SQLAllocHandle", "SQLPrepareW",
                                    "SQLBindParameter", "SQLExecute", "SQLRowCount"]
    connection.close()
    assert runtime.take_calls() == ["SQLFreeStmt", "SQLDisconnect", "SQLFreeHandle",
                                    "SQLFreeHandle"]


@pytest.mark.parametrize("parameters, values", [
    ((), None), (([],), None), (((),), None), (({},), None), ((5,), [5]), ((5, 6), [5, 6]),
    (([5, 6],), [5, 6]), (((5, 6),), [5, 6]), ((type("List", (list,), {})([5]),), [5]),
    ((type("Tuple", (tuple,), {})([5]),), [5]), (("text",), ['"text"'])])
def test_ways_to_give_parameters(runtime, cursor, parameters, values):
    cursor.execute("UPDATE t SET a = 1" + ", b = ?" * len(values or ()), *parameters)
    assert runtime.count("SQLExecDirectW") == (values is None)
    assert sent(runtime)[1] == [str(n) for n in values or []]


@pytest.mark.parametrize("arguments, message", [
    ((), "execute() takes at least 1 argument (0 given)"), ((b"SELECT 1",), STATEMENT),
    ((None, 1), STATEMENT), (("lone \udc80",), STATEMENT)])
def test_wrong_arguments(runtime, cursor, arguments, message):
    runtime.result(row_count=4)
    assert cursor.execute("DELETE FROM t").rowcount == 4
    runtime.take_log()
    with raises(TypeError, message):
        cursor.execute(*arguments)
    assert cursor.rowcount == -1
    with pytest.raises(TypeError, match="keyword"):
        cursor.execute(sql="SELECT 1")
    assert runtime.take_log() == []


UNSUPPORTED = zelqa.NotSupportedError, "Unsupported data type"
INVALID = zelqa.ProgrammingError, "Invalid value"


@pytest.mark.filterwarnings("ignore:The statement has 1 ")
@pytest.mark.parametrize("failure, position, parameters", [
    (UNSUPPORTED, 1, ((1, b"x"),)), (UNSUPPORTED, 2, (1, b"x")), (UNSUPPORTED, 1, (b"x",)),
    (UNSUPPORTED, 1, ([1], 2)), (UNSUPPORTED, 0, ([decimal.Decimal(1)],)),
    (UNSUPPORTED, 0, ([bytearray(1)],)), (UNSUPPORTED, 1, ({1, 2},)), (UNSUPPORTED, 1, ({}, 1)),
    (INVALID, 1, (2 ** 63,)), (INVALID, 1, ([1, -2 ** 63 - 1],)), (INVALID, 0, ([10 ** 400],)),
    (INVALID, 2, ("ok", "lone \ud83d"))])
def test_value_that_cannot_be_sent(runtime, cursor, failure, position, parameters):
    exception, message = failure
    with raises(exception, "%s at position [%d] of arguments." % (message, position)):
        cursor.execute("UPDATE t SET a = ?", *parameters)
    assert runtime.count("SQLExecute") == 0
    # What was bound before stays until the next statement, which knows nothing of it.
    runtime.take_log()
    cursor.execute("UPDATE t SET a = ?", 9)
    assert bound(runtime) == ["1: values=[9], lens=[4]"]


COUNTS = "The statement has %d parameter marker(s), but %d value(s) are given"
SURPLUS = COUNTS + ": there is none for the marker in %r."
TRUNCATED = ("The %s at position [%d] of arguments is truncated at its NUL character,"
             " from %d characters to %d.")


@pytest.mark.parametrize("operation, message", [
    (lambda cursor: zelqa.connect("A=b\0C=d").close(), TRUNCATED % ("connection string", 0, 7, 3)),
    (lambda cursor: cursor.callproc("P\0ab"), TRUNCATED % ("procedure name", 0, 4, 1)),
    (lambda cursor: cursor.executemany("SELECT ?\0", [(1,)]), TRUNCATED % ("statement", 0, 9, 8)),
    (lambda cursor: cursor.execute("SELECT 1\0; DROP TABLE t"),
     TRUNCATED % ("statement", 0, 23, 8)),
    (lambda cursor: cursor.execute("SELECT ?", "ab\0cd"), TRUNCATED % ("text", 1, 5, 2)),
    (lambda cursor: cursor.execute("SELECT ?, ?", [1, "\0"]), TRUNCATED % ("text", 1, 1, 0)),
    # Where the tokenizer and a database disagree, what it takes for a marker has no value.
    (lambda cursor: cursor.execute("UPDATE t SET a = 1e5--see [:\nWHERE id = 1 -- ]"),
     SURPLUS % (1, 0, "ATE t SET a = 1e5--see [:\nWHERE id = 1 -- ]")),
    (lambda cursor: cursor.execute("INSERT INTO t VALUES (?, 1e5--it's new\n, 'why? because')", 3),
     SURPLUS % (2, 1, "(?, 1e5--it's new\n, 'why? because')")),
    (lambda cursor: cursor.execute("SELECT 2/**/*1, 'a\\', '?', 'b'"),
     SURPLUS % (1, 0, "SELECT 2/**/*1, 'a\\', '?', 'b'")),
    (lambda cursor: cursor.execute("SELECT '%s\\', 'it?%s'" % ("\u20ac" * 9, "\u00e9" * 20)),
     SURPLUS % (1, 0, "%s\\', 'it?%s" % ("\u20ac" * 5, "\u00e9" * 12))),
    (lambda cursor: cursor.execute("EXEC p ?, @a = ?, ?", 1, 2),
     SURPLUS % (3, 2, "EXEC p ?, @a = ?, ?")),
    (lambda cursor: cursor.executemany(r"SELECT 'a''\', ?", [(1,)]), COUNTS % (0, 1) + "."),
    (lambda cursor: cursor.executemany("SELECT ?", [()]), SURPLUS % (1, 0, "SELECT ?")),
    (lambda cursor: cursor.execute("SELECT ?", datetime.time(1, 2, 3, 4)), "The time at position "
     "[1] of arguments loses its fraction of a second, 4 microseconds."),
    (lambda cursor: cursor.execute("SELECT ?", datetime.datetime(2024, 1, 2, tzinfo=UTC)),
     "The datetime at position [1] of arguments loses its time zone."),
    (lambda cursor: cursor.execute("SELECT ?", datetime.time(1, 2, tzinfo=UTC)), "The time at "
     "position [1] of arguments loses its time zone.")])
def test_nothing_is_cut_silently(runtime, cursor, operation, message):
    with pytest.warns(RuntimeWarning) as caught:
        operation(cursor)
    assert [str(warning.message) for warning in caught] == [message]
    assert caught[0].filename == __file__
    assert "\\x00" not in "".join(runtime.take_log())
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with raises(RuntimeWarning, message):
            operation(cursor)
    assert runtime.take_log() == []


@pytest.mark.parametrize("sql",
                         [r"SELECT 'it\'s', ?", r"SELECT 'C:\\', '?', ?", r"SELECT 'a\b', ? -- \'",
                          "EXEC p ?", "EXEC p @a = ?", "EXEC p @a, :b, ?"])
def test_as_many_values_as_markers(runtime, cursor, sql):
    for run in (cursor.execute, cursor.executemany):
        run(sql, [(1,)] if run == cursor.executemany else (1,))


@pytest.mark.parametrize("count", [32768, 1 << 40])
def test_invented_column_count(runtime, cursor, count):
    def invent(name, arguments):
        if name == "SQLColAttributeW" and arguments[2] == 0:
            ctypes.c_longlong.from_address(arguments[6]).value = count
            return 0
        return None
    runtime.handler(invent)
    with raises(zelqa.DatabaseError, "Unable to DbDataResult.SetStmtHandle: Unable to "
                "InitMetadata: Unable to m_columns.SetSize"):
        cursor.execute("SELECT a FROM t")


def test_attributes_and_their_end(runtime, connection, cursor):
    assert (cursor.description, cursor.rowcount, cursor.arraysize) == (None, -1, -1)
    cursor.arraysize = 7
    runtime.result("a", rows=[[1]])
    cursor.execute("SELECT 1")
    assert cursor.close() is None
    assert (cursor.rowcount, cursor.arraysize) == (-1, -1)
    for attribute in ("connection", "description"):
        with pytest.raises(AttributeError):
            getattr(cursor, attribute)
    assert iter(cursor) is cursor
    runtime.take_log()
    for method in (cursor.close, cursor.execute, cursor.executemany, cursor.callproc,
                   cursor.fetchone, cursor.fetchmany, cursor.fetchall, cursor.next,
                   cursor.__next__):
        with raises(zelqa.ProgrammingError, "Attempt to use a closed cursor"):
            method()
    assert runtime.take_log() == []
