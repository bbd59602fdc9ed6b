"""connect and the Connection object: what is sent, what can fail, what is left behind."""

import itertools

import pytest

from vorda import zelqa

from conftest import ERROR, INFO, NO_DIAGNOSTIC, close, raises

OPENED = ["SQLAllocHandle(1, null, env1)", "SQLSetEnvAttr(env1, 200, 3)",
          "SQLAllocHandle(2, env1, dbc1)",
          'SQLDriverConnectW(dbc1, null, "%s", -3, null, 0, null, 1)']
CLOSED = ["SQLDisconnect(dbc1)", "SQLFreeHandle(2, dbc1)", "SQLFreeHandle(1, env1)"]
STEPS = [("SQLAllocHandle", 1), ("SQLSetEnvAttr", 1), ("SQLAllocHandle", 2),
         ("SQLDriverConnectW", 1)]


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


def test_connection_string_with_nul_is_cut_with_a_warning(runtime):
    with pytest.warns(RuntimeWarning, match="connection string .* from 7 characters to 3"):
        zelqa.connect("A=b\0C=d").close()
    assert runtime.take_log()[3] == OPENED[3] % "A=b"


@pytest.mark.parametrize("step", range(4), ids=["env", "version", "dbc", "connect"])
@pytest.mark.parametrize("diagnostic", ["no such server", "", None])
def test_failed_open_leaves_nothing(runtime, step, diagnostic):
    function, nth = STEPS[step]
    runtime.answer(function, ERROR, nth)
    if diagnostic is not None:
        runtime.diag(diagnostic)
    message = "Unable to alloc env handle" if step == 0 else diagnostic or NO_DIAGNOSTIC
    with raises(zelqa.DatabaseError, message):
        zelqa.connect("Server=there")
    assert runtime.live_handles() == 0
    runtime.clear_answers()
    zelqa.connect("Server=there").close()


@pytest.mark.parametrize("step", range(1, 4))
def test_open_with_information_goes_on(runtime, step):
    function, nth = STEPS[step]
    runtime.answer_after(function, INFO, nth)
    runtime.diag("by the way")
    zelqa.connect("Server=there").close()
    read = "SQLErrorW(%s, null, ptr, ptr, ptr, 1024, ptr)" % ("null, dbc1" if step == 3 else
                                                              "env1, null")
    log = OPENED[:3] + [OPENED[3] % "Server=there"] + CLOSED
    assert runtime.take_log() == log[:step + 1] + [read] + log[step + 1:]


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


@pytest.mark.parametrize("order", list(itertools.permutations(
    ["row", "cursor", "connection"])))
@pytest.mark.parametrize("closing", [False, True])
def test_order_of_the_end(runtime, order, closing):
    """Whichever goes first, the others stay usable for what they still can do."""
    runtime.result("a", "b", rows=[[1, 2], [3, 4]])
    objects = {"connection": zelqa.connect("Server=there")}
    objects["cursor"] = objects["connection"].cursor()
    objects["cursor"].execute("SELECT a, b FROM t")
    objects["row"] = objects["cursor"].fetchone()
    for name in order:
        gone = objects.pop(name)
        if closing and name != "row":
            close(gone)
        del gone
        if "row" in objects:
            assert tuple(objects["row"]) == (1, 2) and objects["row"]["b"] == 2
        if "cursor" in objects and "connection" in objects:
            assert objects["cursor"].fetchone()["a"] == 3
        alive = "connection" in objects or ("cursor" in objects and not closing)
        assert runtime.live_handles(2) == alive
    assert runtime.live_handles() == 0
