#include "mono/dbsource.h"

#include <cstdint>

#include "util/def.h"

int ODBCSourceImpl::Init() {
    m_errCode = VORDA_OK;
    m_isOpen = 0;
    m_odbcAttrs.ODBC_ATTR_PARAMSET_SIZE = 1;
    m_henv = nullptr;
    m_hdbc = nullptr;
    m_preparedHstmt = nullptr;
    return VORDA_OK;
}

int ODBCSourceImpl::Open(const char* connStr, int /*len*/) {
    if (m_isOpen) return VORDA_OK;
    if (m_henv == nullptr) {
        if (SQLAllocEnv(&m_henv) == SQL_ERROR) {
            m_henv = nullptr;
            return Fail(VORDA_NO_ENVIRONMENT, "Unable to alloc env handle");
        }
        const auto version = reinterpret_cast<SQLPOINTER>(static_cast<intptr_t>(SQL_OV_ODBC3));
        if (!Passed(SQLSetEnvAttr(m_henv, SQL_ATTR_ODBC_VERSION, version, 0), m_henv, nullptr,
                    nullptr)) {
            return VORDA_ODBC_ERROR;
        }
    }
    if (m_hdbc == nullptr && !Passed(SQLAllocConnect(m_henv, &m_hdbc), m_henv, nullptr, nullptr)) {
        m_hdbc = nullptr;
        return VORDA_ODBC_ERROR;
    }
    if (!Passed(SQLDriverConnectW(m_hdbc, nullptr, AsWideText(connStr), SQL_NTS, nullptr, 0,
                                  nullptr, SQL_DRIVER_COMPLETE),
                nullptr, m_hdbc, nullptr)) {
        return VORDA_ODBC_ERROR;
    }
    m_isOpen = 1;
    return VORDA_OK;
}

void ODBCSourceImpl::DropPrepared() {
    if (m_preparedHstmt != nullptr) {
        SQLFreeStmt(m_preparedHstmt, SQL_DROP);
        m_preparedHstmt = nullptr;
    }
    // Only now: until here the statement held the addresses of their buffers.
    ClearParameters();
    m_hasStaleBindings = false;
    m_isBatched = false;
}

int ODBCSourceImpl::Close() {
    SetError(VORDA_OK, "");
    DropPrepared();
    if (m_hdbc != nullptr) {
        SQLDisconnect(m_hdbc);
        SQLFreeConnect(m_hdbc);
        m_hdbc = nullptr;
    }
    if (m_henv != nullptr) {
        SQLFreeEnv(m_henv);
        m_henv = nullptr;
    }
    m_isOpen = 0;
    return VORDA_OK;
}

int ODBCSourceImpl::Config(int attribute, void* value, int /*length*/) {
    if (attribute != SQL_ATTR_PARAMSET_SIZE) {
        return Fail(VORDA_UNKNOWN_ATTRIBUTE, "Unknown dbsource attribute.");
    }
    m_odbcAttrs.ODBC_ATTR_PARAMSET_SIZE = static_cast<int>(reinterpret_cast<intptr_t>(value));
    return VORDA_OK;
}

int ODBCSourceImpl::RequireOpen() {
    return m_isOpen ? int{VORDA_OK} : Fail(VORDA_NOT_OPEN, "The connection is not open.");
}

int ODBCSourceImpl::RequirePrepared() {
    if (const int status = RequireOpen(); status != VORDA_OK) return status;
    return m_preparedHstmt != nullptr
               ? int{VORDA_OK}
               : Fail(VORDA_NOT_PREPARED, "The prepared statement is required");
}

int ODBCSourceImpl::Prepare(const char* sql, int len) {
    if (const int status = RequireOpen(); status != VORDA_OK) return status;
    DropPrepared();
    if (!Passed(SQLAllocStmt(m_hdbc, &m_preparedHstmt), nullptr, m_hdbc, nullptr)) {
        m_preparedHstmt = nullptr;
        return VORDA_ODBC_ERROR;
    }
    if (!StatementPassed(SQLPrepareW(m_preparedHstmt, AsWideText(sql), len), m_preparedHstmt)) {
        return VORDA_ODBC_ERROR;
    }
    return VORDA_OK;
}

int ODBCSourceImpl::Execute(IntDbResultSet* rs, int* rowCount) {
    if (const int status = RequirePrepared(); status != VORDA_OK) return status;
    // An execution that is refused ends its parameters as well: the next value is the first again.
    if (!BatchMatchesParameters()) {
        ClearParameters();
        return VORDA_INDEX_OUT_OF_RANGE;
    }
    if (!UndoLastExecution()) {
        ClearParameters();
        return VORDA_ODBC_ERROR;
    }

    const SQLHSTMT hstmt = m_preparedHstmt;
    const int sets = m_odbcAttrs.ODBC_ATTR_PARAMSET_SIZE;
    if (sets > 1) {
        if (!StatementPassed(SetSets(sets), hstmt)) return VORDA_ODBC_ERROR;
        m_isBatched = true;
    }

    const SQLRETURN result = SQLExecute(hstmt);
    ClearParameters();
    if (!StatementPassed(result, hstmt)) return VORDA_ODBC_ERROR;
    if (sets > 1) m_isBatched = !OdbcSucceeded(SetSets(1));

    if (rs != nullptr) {
        m_preparedHstmt = nullptr;
        m_hasStaleBindings = false;
        m_isBatched = false;
        if (const int status = HandOver(hstmt, rs); status != VORDA_OK) return status;
    }
    return rowCount != nullptr ? ReadRowCount(hstmt, rowCount) : VORDA_OK;
}

int ODBCSourceImpl::Execute(const char* sql, int len, IntDbResultSet* rs, int* rowCount) {
    if (const int status = RequireOpen(); status != VORDA_OK) return status;
    // Without a result set nobody frees this statement before the connection ends.
    SQLHSTMT hstmt = nullptr;
    if (!Passed(SQLAllocStmt(m_hdbc, &hstmt), nullptr, m_hdbc, nullptr)) return VORDA_ODBC_ERROR;

    const SQLRETURN result = SQLExecDirectW(hstmt, AsWideText(sql), len);
    ClearParameters();
    if (!StatementPassed(result, hstmt)) return VORDA_ODBC_ERROR;

    if (rs != nullptr) {
        if (const int status = HandOver(hstmt, rs); status != VORDA_OK) return status;
    }
    int count = 0;
    return ReadRowCount(hstmt, rowCount != nullptr ? rowCount : &count);
}

SQLRETURN ODBCSourceImpl::SetSets(int sets) {
    return SQLSetStmtAttr(m_preparedHstmt, SQL_ATTR_PARAMSET_SIZE,
                          reinterpret_cast<SQLPOINTER>(static_cast<intptr_t>(sets)), 0);
}

int ODBCSourceImpl::HandOver(SQLHSTMT hstmt, IntDbResultSet* rs) {
    if (const int status = rs->Init(); status != VORDA_OK) {
        return ComposeError("Unable to DbDataResult.Init", m_errMsg.Deref(), status);
    }
    // Whatever this answers, the statement belongs to the result set now, which frees it.
    if (const int status = rs->GetImpl()->SetStmtHandle(hstmt); status != VORDA_OK) {
        // Of an impossible number of columns no message of the driver's can tell.
        const bool impossible = status == VORDA_NUMBER_OUT_OF_RANGE;
        return ComposeError("Unable to DbDataResult.SetStmtHandle",
                            impossible ? rs->GetLastErrorMessage() : m_errMsg.Deref(), status);
    }
    return VORDA_OK;
}

int ODBCSourceImpl::ReadRowCount(SQLHSTMT hstmt, int* rowCount) {
    SQLLEN count = 0;
    if (!StatementPassed(SQLRowCount(hstmt, &count), hstmt)) return VORDA_ODBC_ERROR;
    *rowCount = static_cast<int>(count);
    return VORDA_OK;
}
