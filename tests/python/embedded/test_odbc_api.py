"""The module as an ODBC driver library: an application that calls its exported functions."""

import ctypes

import pytest

from vorda import zelqa

ENV, DBC, STMT = 1, 2, 3
NTS, CHAR, SBIGINT, BIGINT, VARCHAR, NO_DATA = -3, 1, -25, -5, 12, 100


class Application:
    def __init__(self, path):
        self.odbc = ctypes.CDLL(zelqa.__file__)
        self.env = self.allocate(ENV, None)
        assert self.odbc.SQLSetEnvAttr(self.env, 200, ctypes.c_void_p(3), 0) == 0
        self.dbc = self.allocate(DBC, self.env)
        text = ("Database={%s}" % path).encode()
        assert self.odbc.SQLDriverConnect(self.dbc, None, text, NTS, None, 0, None, 0) == 0

    def allocate(self, kind, parent):
        handle = ctypes.c_void_p()
        assert self.odbc.SQLAllocHandle(kind, parent, ctypes.byref(handle)) == 0
        return handle

    def direct(self, sql):
        statement = self.allocate(STMT, self.dbc)
        status = self.odbc.SQLExecDirect(statement, sql.encode(), NTS)
        self.odbc.SQLFreeHandle(STMT, statement)
        return status

    def close(self):
        assert self.odbc.SQLDisconnect(self.dbc) == 0
        assert self.odbc.SQLFreeHandle(DBC, self.dbc) == 0
        assert self.odbc.SQLFreeHandle(ENV, self.env) == 0


@pytest.fixture
def application(path):
    application = Application(path)
    yield application
    application.close()


def test_a_prepared_query_with_unbound_and_bound_columns(application):
    odbc = application.odbc
    assert application.direct("CREATE TABLE t (a INTEGER, b TEXT)") == 0
    assert application.direct("INSERT INTO t VALUES (1, 'one'), (2, 'zwei €'), (3, NULL)") == 0
    statement = application.allocate(STMT, application.dbc)
    assert odbc.SQLPrepare(statement, b"SELECT a, b FROM t WHERE a >= ? ORDER BY a", NTS) == 0
    value, length = ctypes.c_longlong(2), ctypes.c_ssize_t(8)
    assert odbc.SQLBindParameter(statement, 1, 1, SBIGINT, BIGINT, ctypes.c_size_t(0), 0,
                                 ctypes.byref(value), ctypes.c_ssize_t(8),
                                 ctypes.byref(length)) == 0
    assert odbc.SQLExecute(statement) == 0
    count, number, indicator = ctypes.c_short(), ctypes.c_longlong(), ctypes.c_ssize_t()
    assert odbc.SQLNumResultCols(statement, ctypes.byref(count)) == 0 and count.value == 2
    assert odbc.SQLBindCol(statement, 1, SBIGINT, ctypes.byref(number), ctypes.c_ssize_t(8),
                           ctypes.byref(indicator)) == 0
    seen = []
    while odbc.SQLFetch(statement) != NO_DATA:
        text, size = ctypes.create_string_buffer(64), ctypes.c_ssize_t()
        assert odbc.SQLGetData(statement, 2, CHAR, text, ctypes.c_ssize_t(64),
                               ctypes.byref(size)) == 0
        seen.append((number.value, text.value.decode() if size.value >= 0 else None))
    assert seen == [(2, "zwei €"), (3, None)]
    assert odbc.SQLFreeHandle(STMT, statement) == 0


def test_errors_carry_a_state_and_a_text(application):
    odbc = application.odbc
    statement = application.allocate(STMT, application.dbc)
    assert odbc.SQLExecDirect(statement, b"SELECT * FROM nowhere", NTS) == -1
    state, text = ctypes.create_string_buffer(6), ctypes.create_string_buffer(200)
    native, length = ctypes.c_int(), ctypes.c_short()
    assert odbc.SQLGetDiagRec(STMT, statement, 1, state, ctypes.byref(native), text, 200,
                              ctypes.byref(length)) == 0
    assert state.value == b"42S02" and b"nowhere" in text.value and native.value != 0
    assert odbc.SQLFreeHandle(STMT, statement) == 0


def test_transactions_and_what_the_python_side_sees(application, path):
    assert application.odbc.SQLSetConnectAttr(application.dbc, 102, ctypes.c_void_p(0), 0) == 0
    assert application.direct("CREATE TABLE t (a INTEGER)") == 0
    assert application.odbc.SQLEndTran(DBC, application.dbc, 0) == 0
    assert application.direct("INSERT INTO t VALUES (1)") == 0
    reader = zelqa.connect("Database={%s}" % path)
    assert reader.execute("SELECT count(*) FROM t").fetchone()[0] == 0
    assert application.odbc.SQLEndTran(DBC, application.dbc, 0) == 0
    assert reader.execute("SELECT count(*) FROM t").fetchone()[0] == 1
    reader.close()


def test_functions_the_runtime_lacks_are_errors(application):
    assert application.odbc.SQLBrowseConnect(application.dbc, b"x", NTS, None, 0, None) == -1
    supported = ctypes.c_ushort(7)
    assert application.odbc.SQLGetFunctions(application.dbc, 44, ctypes.byref(supported)) == 0
    assert supported.value == 1
