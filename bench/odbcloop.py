"""An ODBC driver alone: its rows into arrays of C values, a thousand at a time, and nothing made
of them. No Python driver that stands on it can be faster."""

import ctypes

ROWS, TEXT = 1000, 256
SUCCESSES = (0, 1)  # SQL_SUCCESS, SQL_SUCCESS_WITH_INFO
HANDLE_ENV, HANDLE_DBC, HANDLE_STMT = 1, 2, 3
ATTR_ODBC_VERSION, ATTR_ROW_ARRAY_SIZE, ATTR_ROWS_FETCHED_PTR = 200, 27, 26
# What a column of a type is read as: C type and bytes. All others are text.
INTEGER, DOUBLE, DATE, CHARACTERS = (-25, 8), (8, 8), (91, 6), (1, TEXT)
C_TYPES = {4: INTEGER, 5: INTEGER, -5: INTEGER, 6: DOUBLE, 7: DOUBLE, 8: DOUBLE, 91: DATE}


class Driver:
    """A connection over the driver manager."""

    def __init__(self, string):
        self._odbc = ctypes.CDLL("libodbc.so.2")
        environment = self._allocate(HANDLE_ENV, None)
        self._call("SQLSetEnvAttr", environment, ATTR_ODBC_VERSION, ctypes.c_void_p(3), 0)
        self._connection = self._allocate(HANDLE_DBC, environment)
        self._call("SQLDriverConnect", self._connection, None, string.encode(), -3, None, 0, None,
                   0)

    def _call(self, function, *arguments):
        done = ctypes.c_short(getattr(self._odbc, function)(*arguments)).value
        if done not in SUCCESSES:
            raise RuntimeError("%s answered %d" % (function, done))

    def _allocate(self, kind, parent):
        handle = ctypes.c_void_p()
        self._call("SQLAllocHandle", kind, parent, ctypes.byref(handle))
        return handle

    def _bind(self, statement, number):
        described = ctypes.c_short()
        self._call("SQLDescribeCol", statement, number, None, 0, None, ctypes.byref(described),
                   None, None, None)
        kind, size = C_TYPES.get(described.value, CHARACTERS)
        cells, lengths = ctypes.create_string_buffer(ROWS * size), (ctypes.c_ssize_t * ROWS)()
        self._call("SQLBindCol", statement, number, kind, cells, ctypes.c_ssize_t(size), lengths)
        return cells, lengths

    def read(self, query):
        """Answers how many rows there were."""
        statement, fetched = self._allocate(HANDLE_STMT, self._connection), ctypes.c_size_t()
        try:
            self._call("SQLSetStmtAttr", statement, ATTR_ROW_ARRAY_SIZE, ctypes.c_void_p(ROWS), 0)
            self._call("SQLSetStmtAttr", statement, ATTR_ROWS_FETCHED_PTR, ctypes.byref(fetched), 0)
            self._call("SQLExecDirect", statement, query.encode(), -3)
            columns = ctypes.c_short()
            self._call("SQLNumResultCols", statement, ctypes.byref(columns))
            bound = [self._bind(statement, number + 1) for number in range(columns.value)]
            rows = 0
            while self._odbc.SQLFetch(statement) in SUCCESSES:
                rows += fetched.value
            assert bound
            return rows
        finally:
            self._odbc.SQLFreeHandle(HANDLE_STMT, statement)
