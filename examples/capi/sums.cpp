// The module's three C and C++ interfaces, each doing the same: the sum of a query's first column,
// without a Python object for any row. Built as a library that sums.py loads into the interpreter;
// docs/c-api.md has the command. Each function returns 0, or 1 with the message in `message`.
#include <sqlext.h>

#include <cstddef>
#include <cstdio>
#include <memory>

#include "include/dbs.h"

namespace {

struct Closer {
    void operator()(DBSHANDLE handle) const {
        DBSDisconnect(handle);
        DBSFreeHandle(SQL_HANDLE_DBC, handle);
    }
};
using Handle = std::unique_ptr<_dbhandler, Closer>;

int Fail(DBSHANDLE handle, char* message, std::size_t size) {
    DBSINTEGER code = 0;
    char text[65536] = {};
    DBSSMALLINT length = 0;
    DBSError(handle, &code, text, &length);
    std::snprintf(message, size, "%s", text);
    return 1;
}

}  // namespace

extern "C" {

// The statement handle API: one handle is a connection and its statement. Columns count from 0.
int sum_by_dbs(const char* connect, const char* sql, int above, double* sum, char* message,
               std::size_t size) {
    DBSHANDLE opened = nullptr;
    DBSAllocHandle(SQL_HANDLE_DBC, nullptr, &opened);
    const Handle handle(opened);
    int markers = 0;
    const int length = sizeof above;
    if (DBSDriverConnect(opened, connect, SQL_NTS) != 0 ||
        DBSPrepare(opened, sql, SQL_NTS, &markers) != 0 ||
        DBSBindParameter(opened, 0, SQL_PARAM_INPUT, DBTYPE_INTEGER, SQL_INTEGER, 0, 0, &above,
                         length, &length) != 0 ||
        DBSExecute(opened) != 0) {
        return Fail(opened, message, size);
    }
    *sum = 0;
    while (DBSFetch(opened) == 0) {
        double value = 0;
        if (DBSGetData(opened, 0, DBTYPE_DOUBLE, &value, sizeof value, nullptr) == 0) *sum += value;
    }
    return 0;
}

// The Dbs class: the same with the last error kept for the caller. Close comes before the
// destructor.
int sum_by_class(const char* connect, const char* sql, int above, double* sum, char* message,
                 std::size_t size) {
    Dbs dbs;
    const int length = sizeof above;
    const bool executed =
        dbs.Init() == 0 && dbs.Open(connect, SQL_NTS) == 0 && dbs.Prepare(sql, SQL_NTS) == 0 &&
        dbs.AddParam(0, DBTYPE_INTEGER, &above, length, &length) == 0 && dbs.Execute() == 0;
    *sum = 0;
    while (executed && dbs.Next() && !dbs.FetchFailed()) {
        double value = 0;
        if (dbs.GetDouble(0, &value) == 0) *sum += value;
    }
    if (!executed || dbs.FetchFailed())
        std::snprintf(message, size, "%s", dbs.GetLastErrorMessage());
    const bool failed = !executed || dbs.FetchFailed();
    dbs.Close();
    return failed ? 1 : 0;
}

// The ODBC functions, as any ODBC application calls them. Columns count from 1.
int sum_by_odbc(const char* connect, const char* sql, int above, double* sum, char* message,
                std::size_t size) {
    SQLHENV env = nullptr;
    SQLHDBC dbc = nullptr;
    SQLHSTMT stmt = nullptr;
    const auto text = [](const char* utf8) {
        return reinterpret_cast<SQLCHAR*>(const_cast<char*>(utf8));
    };
    SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env);
    SQLSetEnvAttr(env, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    SQLAllocHandle(SQL_HANDLE_DBC, env, &dbc);
    const bool connected = SQL_SUCCEEDED(SQLDriverConnect(
        dbc, nullptr, text(connect), SQL_NTS, nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT));
    bool failed = !connected;
    double value = 0;
    SQLLEN indicator = 0;
    *sum = 0;
    if (connected) {
        SQLAllocHandle(SQL_HANDLE_STMT, dbc, &stmt);
        failed =
            !SQL_SUCCEEDED(SQLPrepare(stmt, text(sql), SQL_NTS)) ||
            !SQL_SUCCEEDED(SQLBindParameter(stmt, 1, SQL_PARAM_INPUT, SQL_C_LONG, SQL_INTEGER, 0, 0,
                                            &above, 0, nullptr)) ||
            !SQL_SUCCEEDED(SQLExecute(stmt)) ||
            !SQL_SUCCEEDED(SQLBindCol(stmt, 1, SQL_C_DOUBLE, &value, sizeof value, &indicator));
        while (!failed && SQL_SUCCEEDED(SQLFetch(stmt))) {
            if (indicator != SQL_NULL_DATA) *sum += value;
        }
    }
    if (failed) {
        SQLCHAR state[6];
        SQLINTEGER code = 0;
        SQLGetDiagRec(connected ? SQL_HANDLE_STMT : SQL_HANDLE_DBC, connected ? stmt : dbc, 1,
                      state, &code, reinterpret_cast<SQLCHAR*>(message),
                      static_cast<SQLSMALLINT>(size), nullptr);
    }
    if (stmt) SQLFreeHandle(SQL_HANDLE_STMT, stmt);
    if (connected) SQLDisconnect(dbc);
    SQLFreeHandle(SQL_HANDLE_DBC, dbc);
    SQLFreeHandle(SQL_HANDLE_ENV, env);
    return failed ? 1 : 0;
}

}  // extern "C"
