"""Cursor.execute: what is sent, byte for byte and in which order, and every way to fail."""

import ctypes
import datetime
import decimal
import sys
import warnings

import pytest

from vorda import zelqa

from conftest import ERROR, INFO, NO_DATA, assert_no_growth, raises

NO_DIAGNOSTIC = "Unable to retrieve the error"
DESCRIBED = ["SQLColAttributeW"] * 7 + ["SQLBindCol"]


def bound(runtime):
    """The parameters as the runtime found them in memory at the execution."""
    return [line.strip() for line in runtime.take_log() if line.startswith("  ")]


def bindings(runtime):
    return [line for line in runtime.take_log() if line.startswith("SQLBindParameter")]


class Text(str):
    pass


class Whole(int):
    def __int__(self):
        raise AssertionError("the value itself counts")
    __index__ = __int__


UTC = datetime.timezone.utc
# value, C type, SQL type, size of the slot, text of the value and its length at the execution
VALUES = [
    ("", -8, -9, 0, '""', 0),
    ("plain", -8, -9, 5, '"plain"', 5),
    (Text("caf\u00e9 \u20ac \U0001f600"), -8, -9, 14, '"caf\u00e9 \u20ac \U0001f600"', 14),
    ("x" * 100000, -8, -9, 100000, '"%s"' % ("x" * 100000), 100000),
    (0, 4, 4, 4, "0", 4),
    (2147483647, 4, 4, 4, "2147483647", 4),
    (-2147483648, 4, 4, 4, "-2147483648", 4),
    (2147483648, -25, -5, 8, "2147483648", 8),
    (-2147483649, -25, -5, 8, "-2147483649", 8),
    (9223372036854775807, -25, -5, 8, "9223372036854775807", 8),
    (-9223372036854775808, -25, -5, 8, "-9223372036854775808", 8),
    (Whole(7), 4, 4, 4, "7", 4),
    (True, 4, 4, 4, "1", 4),
    (False, 4, 4, 4, "0", 4),
    (1.5, 8, 8, 8, "1.5", 8),
    (0.1, 8, 8, 8, "0.1", 8),
    (float("inf"), 8, 8, 8, "inf", 8),
    (None, -8, -9, 0, '""', 0),
    (datetime.date(2024, 2, 29), 9, 9, 6, "2024-02-29", 6),
    (datetime.date(1, 1, 1), 9, 9, 6, "0001-01-01", 6),
    (datetime.datetime(9999, 12, 31, 23, 59, 59), 11, 11, 16,
     "9999-12-31 23:59:59.000000000", 16),
    (datetime.time(23, 59, 58), 10, 10, 6, "23:59:58", 6),
]


@pytest.mark.parametrize("value, ctype, sqltype, size, text, length", VALUES,
                         ids=[repr(row[0])[:20] for row in VALUES])
def test_binding(runtime, cursor, value, ctype, sqltype, size, text, length):
    assert cursor.execute("UPDATE t SET a = ?", value) is cursor
    log = runtime.take_log()
    assert log[2] == (
        "SQLBindParameter(stmt1, 1, in, ctype=%d, sqltype=%d, size=%d, digits=0, buflen=%d, "
        "values=[%s], lens=[%d])" % (ctype, sqltype, size, size, text, length))
    assert log[4] == "  1: values=[%s], lens=[%d]" % (text, length)


@pytest.mark.parametrize("start", range(0, 1000000, 125000))
def test_every_microsecond_travels(runtime, cursor, start):
    for first in range(start, start + 125000, 5000):
        stamps = [datetime.datetime(2024, 2, 29, 1, 2, 3, first + i) for i in range(5000)]
        cursor.execute("UPDATE t SET a = ?", stamps)
        assert bound(runtime) == ["%d: values=[2024-02-29 01:02:03.%06d000], lens=[16]"
                                  % (i + 1, first + i) for i in range(5000)]


def test_direct_form_of_a_query(runtime, connection, cursor):
    runtime.result("a", rows=[[1]])
    assert cursor.execute("  SELECT a FROM t -- ?") is cursor
    assert runtime.take_log() == [
        "SQLAllocHandle(3, dbc1, stmt1)", 'SQLExecDirectW(stmt1, "SELECT a FROM t -- ?", 20)',
        "SQLColAttributeW(stmt1, 1, 0, null, 0, null, ptr)",
        "SQLColAttributeW(stmt1, 1, 1, ptr, 128, ptr, null)"] + [
            "SQLColAttributeW(stmt1, 1, %d, null, 0, null, ptr)" % field
            for field in (2, 3, 4, 5, 7)] + [
                "SQLBindCol(stmt1, 1, 4, ptr, 0, ptr)", "SQLRowCount(stmt1, ptr)"]
    connection.close()
    assert runtime.take_calls() == ["SQLFreeStmt", "SQLDisconnect", "SQLFreeHandle",
                                    "SQLFreeHandle"]


def test_prepared_road_of_a_query(runtime, cursor):
    runtime.result("a")
    cursor.execute("SELECT a FROM t WHERE a = :a AND b = @b", 1, "x")
    assert runtime.take_calls() == [
        "SQLAllocHandle", "SQLPrepareW", "SQLBindParameter", "SQLBindParameter", "SQLExecute",
        *DESCRIBED, "SQLRowCount"]
    runtime.result(row_count=3)
    cursor.execute("DELETE FROM t WHERE a = ?", 1)
    # The next statement is prepared while the rows are still there; they end as it is executed.
    assert runtime.take_calls() == ["SQLAllocHandle", "SQLPrepareW", "SQLBindParameter",
                                    "SQLFreeStmt", "SQLExecute", "SQLRowCount"]
    assert cursor.rowcount == 3
    cursor.execute("DELETE FROM t WHERE a = ?", 2)
    assert runtime.take_calls()[0] == "SQLFreeStmt"


@pytest.mark.parametrize("text, sent", [
    ("SELECT '\U0001f600 ?', ?", "SELECT '\U0001f600 ?', @1 "),
    ("SELECT \U000fffff\U0010ffff, ?   + 1", "SELECT \U000fffff\U0010ffff, @1 + 1"),
    ("INSERT INTO t VALUES (?,\t:x , @y)", "INSERT INTO t VALUES (@1 ,\t@2 , @3 )"),
    ("EXEC p @a = ?, @b = ?", "EXEC p @a = @1 , @b = @2 "),
    ("? = CALL p(?)", "? = CALL p(@1 )"),
    ("/* ? */ SELECT [?], \"?\", ?", "/* ? */ SELECT [?], \"?\", @1 "),
])
def test_statement_text(runtime, cursor, text, sent):
    runtime.result("a")
    cursor.execute(text, 1)
    assert runtime.take_log()[1] == 'SQLPrepareW(stmt1, "%s", %d)' % (
        sent.replace('"', '\\"').replace("\t", "\\x09"), len(sent.encode()))


@pytest.mark.parametrize("parameters, calls", [
    ((), "direct"), (([],), "direct"), (((),), "direct"), (({},), "direct"),
    ((5,), [5]), ((5, 6), [5, 6]), (([5, 6],), [5, 6]), (((5, 6),), [5, 6]),
    ((type("List", (list,), {})([5]),), [5]), ((type("Tuple", (tuple,), {})([5]),), [5]),
    (("text",), ['"text"']),
])
def test_ways_to_give_parameters(runtime, cursor, parameters, calls):
    cursor.execute("UPDATE t SET a = 1", *parameters)
    if calls == "direct":
        assert runtime.take_calls() == ["SQLAllocHandle", "SQLExecDirectW", "SQLRowCount"]
    else:
        assert [line[11:].split("]")[0] for line in bound(runtime)] == [str(n) for n in calls]


@pytest.mark.parametrize("arguments, exception, message", [
    ((), TypeError, "execute() takes at least 1 argument (0 given)"),
    ((b"SELECT 1",), TypeError,
     "The first argument to execute must be a string or unicode query."),
    ((None, 1), TypeError, "The first argument to execute must be a string or unicode query."),
    (("lone \udc80",), TypeError,
     "The first argument to execute must be a string or unicode query."),
])
def test_wrong_arguments(runtime, cursor, arguments, exception, message):
    runtime.result(row_count=4)
    cursor.execute("DELETE FROM t")
    runtime.take_log()
    with raises(exception, message):
        cursor.execute(*arguments)
    assert cursor.rowcount == -1
    assert runtime.take_log() == []


UNSUPPORTED = "Unsupported data type at position [%d] of arguments."
INVALID = "Invalid value at position [%d] of arguments."


@pytest.mark.parametrize("parameters, exception, message", [
    (((1, b"x"),), zelqa.NotSupportedError, UNSUPPORTED % 1),
    ((1, b"x"), zelqa.NotSupportedError, UNSUPPORTED % 2),
    ((b"x",), zelqa.NotSupportedError, UNSUPPORTED % 1),
    (([1], 2), zelqa.NotSupportedError, UNSUPPORTED % 1),
    (([decimal.Decimal(1)],), zelqa.NotSupportedError, UNSUPPORTED % 0),
    (([bytearray(1)],), zelqa.NotSupportedError, UNSUPPORTED % 0),
    (({1, 2},), zelqa.NotSupportedError, UNSUPPORTED % 1),
    ((2 ** 63,), zelqa.ProgrammingError, INVALID % 1),
    (([1, -2 ** 63 - 1],), zelqa.ProgrammingError, INVALID % 1),
    (([10 ** 400],), zelqa.ProgrammingError, INVALID % 0),
    (("ok", "lone \ud83d"), zelqa.ProgrammingError, INVALID % 2),
])
def test_value_that_cannot_be_sent(runtime, cursor, parameters, exception, message):
    with raises(exception, message):
        cursor.execute("UPDATE t SET a = ?", *parameters)
    assert runtime.count("SQLExecute") == 0
    # What was bound before stays until the next statement, which knows nothing of it.
    runtime.take_log()
    cursor.execute("UPDATE t SET a = ?", 9)
    assert bound(runtime) == ["1: values=[9], lens=[4]"]


WARNED = [
    ("SELECT 1\0; DROP TABLE t", (), "The statement at position [0] of arguments is cut at its "
     "NUL character, from 23 characters to 8."),
    ("SELECT ?", ("ab\0cd",), "The text at position [1] of arguments is cut at its NUL character, "
     "from 5 characters to 2."),
    ("SELECT ?", ([1, "\0"],), "The text at position [1] of arguments is cut at its NUL character, "
     "from 1 characters to 0."),
    ("SELECT ?", (datetime.time(1, 2, 3, 4),), "The time at position [1] of arguments loses its "
     "fraction of a second, 4 microseconds."),
    ("SELECT ?", (datetime.datetime(2024, 1, 2, tzinfo=UTC),), "The datetime at position [1] of "
     "arguments loses its time zone."),
    ("SELECT ?", (datetime.time(1, 2, tzinfo=UTC),), "The time at position [1] of arguments loses "
     "its time zone."),
]


@pytest.mark.parametrize("sql, parameters, message", WARNED)
def test_nothing_is_cut_silently(runtime, cursor, sql, parameters, message):
    with pytest.warns(RuntimeWarning) as caught:
        cursor.execute(sql, *parameters)
    assert [str(warning.message) for warning in caught] == [message]
    assert caught[0].filename == __file__
    runtime.take_log()
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with raises(RuntimeWarning, message):
            cursor.execute(sql, *parameters)
    assert runtime.take_log() == []


def test_text_is_cut_at_its_nul(runtime, cursor):
    with pytest.warns(RuntimeWarning):
        cursor.execute("UPDATE t SET a = ?", "ab\0cd")
    assert bound(runtime) == ['1: values=["ab"], lens=[2]']


QUERY_STEPS = ["SQLAllocHandle", "SQLPrepareW", "SQLBindParameter", "SQLExecute",
               "SQLColAttributeW", "SQLBindCol", "SQLRowCount"]
DIRECT_STEPS = ["SQLAllocHandle", "SQLExecDirectW", "SQLColAttributeW", "SQLBindCol",
                "SQLRowCount"]
STEPS = [(step, (1,)) for step in QUERY_STEPS] + [(step, ()) for step in DIRECT_STEPS]
# A refused parameter is left to the execution, in which the driver misses it.
FAILING = [step for step in STEPS if step[0] != "SQLBindParameter"]


@pytest.mark.parametrize("step, parameters", FAILING)
@pytest.mark.parametrize("diagnostic", ["it broke", None])
def test_failure_at_each_step(runtime, cursor, step, parameters, diagnostic):
    for _ in range(4):
        runtime.result("a", rows=[[1]])
    cursor.execute("SELECT a FROM t")
    described = cursor.description
    runtime.fail_next(step, diagnostic)
    # What the result set meets is its own matter: the last error of the execution stays as it was.
    known = diagnostic if step not in ("SQLColAttributeW", "SQLBindCol") else None
    with raises(zelqa.DatabaseError, known or NO_DIAGNOSTIC):
        cursor.execute("SELECT a FROM t", *parameters)
    assert (cursor.rowcount, cursor.description) == (-1, described)
    if step in ("SQLAllocHandle", "SQLPrepareW"):
        assert runtime.count("SQLExecute") == 0
    runtime.clear_answers()
    cursor.execute("SELECT a FROM t", *parameters)
    assert cursor.fetchone()["a"] == 1


@pytest.mark.parametrize("step, parameters", STEPS)
def test_information_at_each_step_goes_on(runtime, cursor, step, parameters):
    runtime.result("a", rows=[[1]])
    runtime.answer_after(step, INFO, runtime.count(step) + 1)
    runtime.diag("by the way")
    cursor.execute("SELECT a FROM t", *parameters)
    assert cursor.description[0][0] == "a"
    assert cursor.fetchone()["a"] == 1
    assert runtime.count("SQLErrorW") == 1


def test_refused_parameter_is_left_to_the_execution(runtime, cursor):
    runtime.fail_next("SQLBindParameter", "refused")
    cursor.execute("UPDATE t SET a = ?, b = ?", 1, 2)
    assert bound(runtime) == ["2: values=[2], lens=[4]"]
    runtime.fail_next("SQLBindParameter", "refused")
    runtime.fail_next("SQLExecute", "a parameter is missing")
    with raises(zelqa.DatabaseError, "a parameter is missing"):
        cursor.execute("UPDATE t SET a = ?", 1)


@pytest.mark.parametrize("status", [NO_DATA, 99, 2, -2])
def test_statuses_that_nobody_expects(runtime, cursor, status):
    """Nothing that is neither success nor an error crashes or never ends."""
    for function in QUERY_STEPS[1:] + ["SQLFetch"]:
        runtime.result("a", rows=[[1]])
        runtime.answer(function, status, runtime.count(function) + 1)
        try:
            assert cursor.execute("SELECT a FROM t", 1) is cursor
            assert isinstance(cursor.fetchall(), list)
        except (zelqa.DatabaseError, zelqa.ProgrammingError):
            pass
        runtime.clear_answers()


def test_message_of_the_result_set_follows_an_earlier_one(runtime, cursor):
    runtime.result("a")
    runtime.answer_after("SQLExecDirectW", INFO, 1)
    runtime.diag("by the way")
    runtime.fail_next("SQLBindCol", "not seen")
    with raises(zelqa.DatabaseError, "Unable to DbDataResult.SetStmtHandle: by the way"):
        cursor.execute("SELECT a FROM t")


@pytest.mark.parametrize("count", [32768, 1 << 31, 1 << 40])
def test_invented_column_count(runtime, cursor, count):
    def invent(name, arguments):
        if name == "SQLColAttributeW" and arguments[2] == 0:
            ctypes.c_longlong.from_address(arguments[6]).value = count
            return 0
        return None

    runtime.handler(invent)
    for parameters in ((), (1,)):
        with pytest.raises(MemoryError):
            cursor.execute("SELECT a FROM t", *parameters)
    runtime.handler(None)
    runtime.result("a", rows=[[1]])
    assert len(cursor.execute("SELECT a FROM t").fetchall()) == 1


def test_second_execution_does_not_see_the_first_ones_buffers(runtime, cursor):
    cursor.execute("UPDATE t SET a = ?", "first")
    runtime.take_log()
    cursor.execute("UPDATE t SET a = 1")
    assert bound(runtime) == []
    cursor.execute("UPDATE t SET a = ?", "second")
    assert bound(runtime) == ['1: values=["second"], lens=[6]']


def test_row_count(runtime, cursor):
    assert cursor.rowcount == -1
    for count in (0, 5, -1):
        runtime.result(row_count=count)
        assert cursor.execute("DELETE FROM t").rowcount == count
        runtime.result(row_count=count)
        assert cursor.execute("DELETE FROM t WHERE a = ?", 1).rowcount == count
    runtime.result("a", row_count=12)
    assert cursor.execute("SELECT a FROM t").rowcount == 0  # rows are counted as they are fetched


def test_closed_cursor(runtime, connection, cursor):
    runtime.result("a", rows=[[1]])
    cursor.execute("SELECT 1")
    cursor.arraysize = 4
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
    connection.close()
    with raises(zelqa.ProgrammingError, "Attempt to use a closed cursor"):
        cursor.execute("SELECT 1")


def test_attributes(runtime, connection, cursor):
    assert (cursor.description, cursor.rowcount, cursor.arraysize) == (None, -1, -1)
    assert cursor.connection is connection
    cursor.arraysize = 7
    assert cursor.arraysize == 7
    for attribute in ("rowcount", "description", "connection"):
        with pytest.raises(AttributeError):
            setattr(cursor, attribute, None)
    for method in (cursor.execute, cursor.executemany, cursor.callproc, cursor.fetchmany):
        with pytest.raises(TypeError, match="keyword"):
            method(sql="SELECT 1")


def test_cursors_share_the_statement(runtime, connection):
    first, second = connection.cursor(), connection.cursor()
    runtime.result("a", rows=[[1], [2]])
    first.execute("SELECT a")
    assert second.fetchone()[0] == 1  # although it executed nothing
    runtime.result("b", "c", rows=[[8, 9]])
    second.execute("SELECT b, c")
    row = first.fetchone()
    assert tuple(row) == (8, 9) and first.description[0][0] == "a"


@pytest.mark.parametrize("operation", [
    lambda cursor: cursor.execute("SELECT a FROM t"),
    lambda cursor: cursor.execute("SELECT a FROM t WHERE a = ?", 2 ** 40).fetchall(),
    lambda cursor: cursor.execute("UPDATE t SET a = ?", ["text \u20ac", 1.5, None, 77777]),
    lambda cursor: cursor.execute("UPDATE t SET a = @a", {"a": "text", "b": object()}),
    lambda cursor: cursor.execute("UPDATE t SET a = ?", 1, b"bytes"),
    lambda cursor: cursor.execute("UPDATE t SET a = ?", 10 ** 30),
    lambda cursor: cursor.execute("UPDATE t SET a = ?", "\ud800"),
    lambda cursor: cursor.execute("UPDATE t SET a = @a", {"b": 1}),
    lambda cursor: cursor.execute(b"bytes"),
    lambda cursor: cursor.connection.execute("FAIL"),
])
def test_nothing_is_left_by_executing(runtime, connection, operation):
    """Each time on a connection of its own: a direct statement lives as long as its connection."""
    connection.close()

    def run():
        runtime.reset()
        runtime.result("a", rows=[[1], [2]])
        other = zelqa.connect("Server=there")
        try:
            operation(other.cursor())
        except (zelqa.Error, TypeError):
            pass
        other.close()
        assert runtime.live_handles() == 0

    assert_no_growth(run)


def test_parameters_are_released(runtime, connection):
    value, sequence = "a text of its own %d" % id(connection), []
    sequence.append(value)
    before = sys.getrefcount(value), sys.getrefcount(sequence)
    for parameters in ((value,), (sequence,), (tuple(sequence),), ({"a": value},)):
        for status in (0, ERROR):
            runtime.answer("SQLExecute", status)
            try:
                connection.execute("UPDATE t SET a = @a", *parameters)
            except zelqa.DatabaseError:
                pass
    del parameters
    assert (sys.getrefcount(value), sys.getrefcount(sequence)) == before
