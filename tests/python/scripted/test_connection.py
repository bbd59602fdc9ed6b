"""connect and the Connection object: what is sent, what is refused, what still works once it is
closed."""

import pytest

from vorda import zelqa

from conftest import raises

OPENED = ["SQLAllocHandle(1, null, env1)", "SQLSetEnvAttr(env1, 200, 3)",
          "SQLAllocHandle(2, env1, dbc1)",
          'SQLDriverConnectW(dbc1, null, "%s", -3, null, 0, null, 1)']
CLOSED = ["SQLDisconnect(dbc1)", "SQLFreeHandle(2, dbc1)", "SQLFreeHandle(1, env1)"]


@pytest.mark.parametrize("text", ["Server=there;Uid=x", "", "Name={a;b=\u00fc\u20ac\U0001f600}",
                                  "x" * 40000, type("Text", (str,), {})("Server=there")])
def test_open_and_close(runtime, text):
    connection = zelqa.connect(text, timeout=5, connection_string="not looked at")
    assert type(connection) is zelqa.Connection
    assert runtime.take_log() == OPENED[:3] + [OPENED[3] % text]
    assert runtime.last_path() == zelqa.__file__
    assert connection.commit() is None
    assert connection.close() is None
    assert runtime.take_log() == CLOSED


NO_TEXT = "The parameter should be valid connection string"


@pytest.mark.parametrize("arguments, message", [
    ((), "Attempt to connect without a connection string"),
    (("a", "b"), "Function takes at most 1 non-keyword argument"),
    ((b"bytes",), NO_TEXT), ((None,), NO_TEXT), (("lone \ud800",), NO_TEXT)])
def test_wrong_arguments(runtime, arguments, message):
    for keywords in ({}, {"connection_string": "Server=there"}):
        with raises(zelqa.ProgrammingError, message):
            zelqa.connect(*arguments, **keywords)
    assert runtime.count() == 0


def test_closed_connection(runtime, connection):
    cursor = connection.cursor()
    connection.close()
    runtime.take_log()
    for method in (connection.close, connection.cursor, connection.commit, connection.execute):
        with raises(zelqa.ProgrammingError, "attempt to use a closed connection"):
            method()
    for method in (cursor.execute, cursor.executemany, cursor.callproc, cursor.fetchone,
                   cursor.fetchmany, cursor.fetchall, cursor.next, cursor.__next__):
        with raises(zelqa.ProgrammingError, "Attempt to use a closed connection"):
            method()
    assert cursor.connection is connection
    assert cursor.close() is None
    assert runtime.take_log() == []


def test_connection_execute_returns_a_cursor(runtime, connection):
    runtime.result("a", rows=[[3]])
    cursor = connection.execute("SELECT a FROM t WHERE a = ?", [3])
    assert type(cursor) is zelqa.Cursor and cursor.connection is connection
    assert cursor.fetchone()[0] == 3
    with raises(TypeError, "execute() takes at least 1 argument (0 given)"):
        connection.execute()
