#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string>

#include "core/error.h"
#include "odbc/utf16.h"

namespace embedded {

// What the engine calls, by the names of the standard.
#define DRIVER_MANAGER_FUNCTIONS(X) \
    X(SQLAllocHandle)               \
    X(SQLBindCol)                   \
    X(SQLBindParameter)             \
    X(SQLCancel)                    \
    X(SQLColAttributeW)             \
    X(SQLColumnsW)                  \
    X(SQLDescribeCol)               \
    X(SQLDescribeColW)              \
    X(SQLDescribeParam)             \
    X(SQLDisconnect)                \
    X(SQLDriverConnect)             \
    X(SQLDriverConnectW)            \
    X(SQLEndTran)                   \
    X(SQLExecDirect)                \
    X(SQLExecDirectW)               \
    X(SQLExecute)                   \
    X(SQLFetch)                     \
    X(SQLForeignKeysW)              \
    X(SQLFreeHandle)                \
    X(SQLFreeStmt)                  \
    X(SQLGetConnectAttrW)           \
    X(SQLGetData)                   \
    X(SQLGetDiagRecW)               \
    X(SQLGetInfoW)                  \
    X(SQLGetTypeInfoW)              \
    X(SQLMoreResults)               \
    X(SQLNumResultCols)             \
    X(SQLPrepare)                   \
    X(SQLPrepareW)                  \
    X(SQLPrimaryKeysW)              \
    X(SQLProcedureColumnsW)         \
    X(SQLProceduresW)               \
    X(SQLRowCount)                  \
    X(SQLSetPos)                    \
    X(SQLSetConnectAttrW)           \
    X(SQLSetEnvAttr)                \
    X(SQLSetStmtAttrW)              \
    X(SQLStatisticsW)               \
    X(SQLTablesW)

/// The functions of the machine's ODBC driver manager.
struct DriverManager {
#define DRIVER_MANAGER_MEMBER(name) decltype(&::name) name;  // NOLINT(bugprone-macro-parentheses)
    DRIVER_MANAGER_FUNCTIONS(DRIVER_MANAGER_MEMBER)
#undef DRIVER_MANAGER_MEMBER

    /// Opens the library when it is first asked for; it stays open, since drivers do not expect to
    /// be unloaded. Throws 08001 when it is missing, with what to install.
    static const DriverManager& instance();
};

/// A handle of the driver manager; freed, and a connection disconnected, at the end.
class OdbcHandle {
  public:
    /// Throws the parent's diagnostic.
    OdbcHandle(SQLSMALLINT type, const OdbcHandle* parent);
    OdbcHandle(const OdbcHandle&) = delete;
    OdbcHandle& operator=(const OdbcHandle&) = delete;
    ~OdbcHandle();

    SQLHANDLE get() const noexcept { return m_handle; }

    /// Throws the handle's diagnostic unless `result` is a success; answers it.
    SQLRETURN check(SQLRETURN result) const;

    /// The failure that the last call on this handle reported.
    Error failure() const;

    /// The SQLSTATE of the first diagnostic record.
    std::string state() const;

  private:
    const DriverManager& m_manager;
    const SQLSMALLINT m_type;
    SQLHANDLE m_handle = SQL_NULL_HANDLE;
};

}  // namespace embedded
