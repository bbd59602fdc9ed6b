"""connect and the Connection object: what is sent, what can fail, what is left behind."""

import pytest

from vorda import zelqa

from conftest import ERROR, INFO, NO_DATA, assert_no_growth, close, raises

OPENED = ["SQLAllocHandle(1, null, env1)", "SQLSetEnvAttr(env1, 200, 3)",
          "SQLAllocHandle(2, env1, dbc1)",
          'SQLDriverConnectW(dbc1, null, "%s", -3, null, 0, null, 1)']
CLOSED = ["SQLDisconnect(dbc1)", "SQLFreeHandle(2, dbc1)", "SQLFreeHandle(1, env1)"]
NO_DIAGNOSTIC = "Unable to retrieve the error"


@pytest.mark.parametrize("text", ["Server=there;Uid=x", "", "Name={a;b=\u00fc\u20ac\U0001f600}",
                                  "x" * 5000])
def test_open_and_close(runtime, text):
    connection = zelqa.connect(text)
    assert type(connection) is zelqa.Connection
    assert runtime.take_log() == OPENED[:3] + [OPENED[3] % text]
    assert runtime.last_path() == zelqa.__file__
    assert connection.close() is None
    assert runtime.take_log() == CLOSED


@pytest.mark.parametrize("arguments, message", [
    ((), "Attempt to connect without a connection string"),
    (("a", "b"), "Function takes at most 1 non-keyword argument"),
    ((b"bytes",), "The parameter should be valid connection string"),
    ((None,), "The parameter should be valid connection string"),
    (("lone \ud800",), "The parameter should be valid connection string"),
])
def test_wrong_arguments(runtime, arguments, message):
    for keywords in ({}, {"connection_string": "Server=there"}):
        with raises(zelqa.ProgrammingError, message):
            zelqa.connect(*arguments, **keywords)
    assert runtime.count() == 0


def test_keywords_are_ignored_and_subclasses_taken(runtime):
    class Text(str):
        pass
    zelqa.connect(Text("Server=x"), timeout=5, connection_string="Server=y").close()
    assert '"Server=x"' in runtime.take_log()[3]


def test_connection_string_with_nul_is_cut_with_a_warning(runtime):
    with pytest.warns(RuntimeWarning, match="connection string .* from 7 characters to 3"):
        zelqa.connect("A=b\0C=d").close()
    assert runtime.take_log()[3] == OPENED[3] % "A=b"


STEPS = [("SQLAllocHandle", 1), ("SQLSetEnvAttr", 1), ("SQLAllocHandle", 2),
         ("SQLDriverConnectW", 1)]


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


@pytest.mark.parametrize("data, shown", [
    (b"caf\xe9", "caf\ufffd"), ("\u00e9".encode()[:1] + b"!", "\ufffd!"),
    (b"%s %d %n", "%s %d %n"), ("\u20ac" * 400, None)])
def test_message_of_a_failure_is_never_lost(runtime, data, shown):
    runtime.answer("SQLDriverConnectW", ERROR)
    runtime.diag(data)
    with pytest.raises(zelqa.DatabaseError) as failure:
        zelqa.connect("Server=there")
    message = str(failure.value)
    if shown is None:  # longer than what is kept: cut, at the most within a character
        assert message.rstrip("\ufffd") == "\u20ac" * 170
    else:
        assert message == shown


@pytest.mark.parametrize("status", [ERROR, NO_DATA, INFO])
def test_diagnostic_that_cannot_be_read(runtime, status):
    runtime.answer("SQLDriverConnectW", ERROR)
    runtime.diag("hidden", status=status)
    with raises(zelqa.DatabaseError, NO_DIAGNOSTIC):
        zelqa.connect("Server=there")


def test_diagnostic_with_an_invented_length(runtime):
    for length in (30000, -5):
        runtime.answer("SQLDriverConnectW", ERROR)
        runtime.diag("short", reported_length=length)
        with pytest.raises(zelqa.DatabaseError, match="short" if length > 0 else NO_DIAGNOSTIC):
            zelqa.connect("Server=there")


def test_commit_sends_nothing(runtime, connection):
    assert connection.commit() is None
    assert runtime.take_log() == []


def test_closed_connection(runtime, connection):
    cursor = connection.cursor()
    connection.close()
    message = "attempt to use a closed connection"
    for method in (connection.close, connection.cursor, connection.commit, connection.execute,
                   lambda: connection.execute("SELECT 1")):
        with raises(zelqa.ProgrammingError, message):
            method()
    runtime.take_log()
    message = "Attempt to use a closed connection"
    for method in (cursor.execute, cursor.executemany, cursor.callproc, cursor.fetchone,
                   cursor.fetchmany, cursor.fetchall, cursor.next, cursor.__next__):
        with raises(zelqa.ProgrammingError, message):
            method()
    assert cursor.connection is connection
    assert cursor.close() is None
    assert runtime.take_log() == []


def test_connection_execute_returns_a_cursor(runtime, connection):
    runtime.result("a", rows=[[3]])
    cursor = connection.execute("SELECT a FROM t WHERE a = ?", [3])
    assert type(cursor) is zelqa.Cursor
    assert cursor.connection is connection
    assert cursor.fetchone()[0] == 3
    with raises(TypeError, "execute() takes at least 1 argument (0 given)"):
        connection.execute()
    with pytest.raises(TypeError, match="keyword"):
        connection.execute(sql="SELECT 1")


def test_close_with_a_pending_result_and_prepared_statements(runtime):
    connection = zelqa.connect("Server=there")
    cursors = [connection.cursor() for _ in range(3)]
    for cursor in cursors:
        runtime.result("a", rows=[[1], [2]])
        cursor.execute("SELECT ?", 1).fetchone()
    cursors[0].execute("DELETE FROM t WHERE a = ?", 1)
    connection.close()
    assert runtime.live_handles() == 0


def test_two_connections_are_apart(runtime):
    first, second = zelqa.connect("A=1"), zelqa.connect("A=2")
    runtime.result("a", rows=[[1]])
    cursor = first.execute("SELECT 1")
    second.close()
    assert cursor.fetchone()[0] == 1
    assert runtime.live_handles(1) == 1
    first.close()


@pytest.mark.parametrize("order", ["row connection cursor", "cursor row connection",
                                   "connection cursor row", "cursor connection row",
                                   "row cursor connection", "connection row cursor"])
@pytest.mark.parametrize("closing", [False, True])
def test_order_of_the_end(runtime, order, closing):
    """Whichever goes first, the others stay usable for what they still can do."""
    runtime.result("a", "b", rows=[[1, 2], [3, 4]])
    objects = {"connection": zelqa.connect("Server=there")}
    objects["cursor"] = objects["connection"].cursor()
    objects["cursor"].execute("SELECT a, b FROM t")
    objects["row"] = objects["cursor"].fetchone()
    for name in order.split():
        gone = objects.pop(name)
        if closing and name != "row":
            close(gone)
        del gone
        if "row" in objects:
            assert tuple(objects["row"]) == (1, 2) and objects["row"]["b"] == 2
        if "cursor" in objects and "connection" in objects:
            assert objects["cursor"].fetchone()["a"] == 3
        assert runtime.live_handles(2) == (1 if "connection" in objects or
                                           ("cursor" in objects and not closing) else 0)
    assert runtime.live_handles() == 0


def test_nothing_is_left_by_connecting(runtime):
    def good():
        zelqa.connect("Server=there").close()

    def dropped():
        zelqa.connect("Server=there").cursor()

    def failing():
        runtime.fail_next("SQLDriverConnectW", "no")
        with pytest.raises(zelqa.DatabaseError):
            zelqa.connect("Server=there")

    for operation in (good, dropped, failing):
        assert_no_growth(operation)
        assert runtime.live_handles() == 0
