#include "include/dbsapi.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <memory>

#include "dbhandler.h"
#include "dbutil.h"

namespace {

constexpr DBSSMALLINT kConnectionHandle = SQL_HANDLE_DBC;
constexpr size_t kColumnNameSize = 128;

// Every way into the layers below: no exception passes. All that can be thrown is want of memory.
template <class Body>
DBSRETURN Guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return VORDA_OUT_OF_MEMORY;
    }
}

template <class Body>
DBSRETURN WithSource(DBSHANDLE handle, Body&& body) noexcept {
    if (handle == nullptr || !handle->S) return VORDA_NOT_OPEN;
    return Guarded([&] { return body(*handle->S); });
}

template <class Body>
DBSRETURN WithResultSet(DBSHANDLE handle, Body&& body) noexcept {
    if (handle == nullptr || !handle->R) return VORDA_NOT_EXECUTED;
    return Guarded([&] { return body(*handle->R); });
}

// The statement as it is sent; `made` has room for it. Sets the handle's kind.
const StatementMemory::Normalized& Normalize(_dbhandler& handle, const DBSCHAR* text,
                                             StatementMemory::Normalized& made) {
    const auto& normalized = handle.memory.Normalize(text != nullptr ? text : "", made);
    handle.verb = normalized.Verb;
    return normalized;
}

// Makes room for the execution: the previous rows end, and a kind with rows gets a new result set.
void StartExecution(_dbhandler& handle) {
    handle.EndResultSet();
    if (SQLTypeHasResultSet(handle.verb)) handle.R = handle.memory.TakeResultSet();
    handle.affectedRows = 0;
}

// A column number as an index of the layer below, where a negative one is no column.
int ColumnIndex(DBSINTEGER columnNumber) {
    return static_cast<int>(std::clamp<DBSINTEGER>(columnNumber, -1, INT_MAX));
}

// Copies text with its terminator into a buffer of `size` bytes, cut where it does not fit.
void CopyText(DBSCHAR* target, size_t size, const char* text) {
    const size_t length = std::min(std::strlen(text), size - 1);
    std::memcpy(target, text, length);
    target[length] = '\0';
}

void ReportError(int code, const char* message, DBSINTEGER* nativeError, DBSCHAR* messageText,
                 DBSSMALLINT* textLength) {
    if (nativeError != nullptr) *nativeError = code;
    if (textLength == nullptr) return;
    *textLength = static_cast<DBSSMALLINT>(std::min<size_t>(std::strlen(message), SHRT_MAX));
    if (messageText != nullptr) {
        CopyText(messageText, static_cast<size_t>(*textLength) + 1, message);
    }
}

template <class Value>
int Read(IntDbResultSet& rs, int (IntDbResultSet::*getter)(int, Value&), int column,
         DBSPOINTER target) {
    return (rs.*getter)(column, *static_cast<Value*>(target));
}

// The copy is twice the text's length, sized for a caller that counts in 16-bit units. The bound
// buffer may end before that; the rest is filled with NULs.
void CopyText(const DbCell& cell, DBSPOINTER target, DBSLEN* length) {
    *length = cell.Extent().Length;
    if (target == nullptr) return;
    const auto wanted = static_cast<size_t>(*length) * 2;
    const size_t copied = std::min(wanted, static_cast<size_t>(cell.Size));
    std::memcpy(target, cell.Text, copied);
    std::memset(static_cast<char*>(target) + copied, 0, wanted - copied);
}

void CopyTerminatedText(const DbCell& cell, DBSPOINTER target, DBSLEN* length) {
    const size_t upToTerminator = strnlen(cell.Text, static_cast<size_t>(cell.Extent().Length));
    *length = static_cast<int>(upToTerminator);
    if (target == nullptr) return;
    std::memcpy(target, cell.Text, upToTerminator);
    static_cast<char*>(target)[upToTerminator] = '\0';
}

int ReadText(IntDbResultSet& rs, int column, DBSPOINTER target, DBSLEN* length,
             void (*copy)(const DbCell&, DBSPOINTER, DBSLEN*)) {
    const DbCell* cell = nullptr;
    const int status = rs.GetImpl()->Readable(column, cell);
    if (status == VORDA_OK) copy(*cell, target, length);
    return status;
}

}  // namespace

DBSRETURN DBSAllocHandle(DBSSMALLINT handleType, DBSHANDLE, DBSHANDLE* outputHandle) {
    if (handleType != kConnectionHandle) return VORDA_OK;
    return Guarded([&] {
        auto handle = std::make_unique<_dbhandler>();
        handle->S = std::make_unique<IntDbSource>();
        if (handle->S->Init() > 0) return int{VORDA_ODBC_ERROR};
        *outputHandle = handle.release();
        return int{VORDA_OK};
    });
}

DBSRETURN DBSFreeHandle(DBSSMALLINT handleType, DBSHANDLE handle) {
    if (handle == nullptr || handleType != kConnectionHandle) return VORDA_OK;
    return Guarded([&] {
        handle->EndResultSet();
        delete handle;
        return VORDA_OK;
    });
}

DBSRETURN DBSDriverConnect(DBSHDBC hdbc, const DBSCHAR* szConnStrIn, DBSSMALLINT cbConnStrIn) {
    return WithSource(hdbc, [&](IntDbSource& s) { return s.Open(szConnStrIn, cbConnStrIn); });
}

DBSRETURN DBSDisconnect(DBSHDBC connectionHandle) {
    if (connectionHandle == nullptr) return VORDA_OK;
    return Guarded([&] {
        connectionHandle->EndResultSet();
        if (connectionHandle->S) connectionHandle->S->Close();
        connectionHandle->S.reset();
        return VORDA_OK;
    });
}

DBSRETURN DBSSetStmtAttr(DBSHSTMT statementHandle, DBSINTEGER attribute, DBSPOINTER value,
                         DBSINTEGER stringLength) {
    return WithSource(statementHandle, [&](IntDbSource& s) {
        return s.Config(static_cast<int>(attribute), value, static_cast<int>(stringLength));
    });
}

DBSRETURN DBSPrepare(DBSHSTMT statementHandle, const DBSCHAR* statementText, DBSINTEGER,
                     DBSLEN* paramCount) {
    return WithSource(statementHandle, [&](IntDbSource& s) {
        StatementMemory::Normalized made;
        const auto& normalized = Normalize(*statementHandle, statementText, made);
        if (paramCount != nullptr) *paramCount = normalized.ParamCount;
        return s.Prepare(normalized.Text.Deref(), normalized.Text.Length());
    });
}

DBSRETURN DBSCountPlaceholders(DBSHSTMT statementHandle, const DBSCHAR* statementText,
                               DBSLEN* count) {
    return WithSource(statementHandle, [&](IntDbSource&) {
        StatementMemory::Normalized made;
        const auto& normalized = statementHandle->memory.Normalize(statementText, made);
        const bool isCall = IsStoredProcedure(normalized.Verb);
        *count = isCall ? CountPlaceholders(statementText) : normalized.ParamCount;
        return VORDA_OK;
    });
}

DBSRETURN DBSBindParameter(DBSHSTMT hstmt, DBSUSMALLINT ipar, DBSSMALLINT, DBSSMALLINT fCType,
                           DBSSMALLINT, DBSULEN, DBSSMALLINT, const void* rgbValue,
                           DBSLEN cbValueMax, const DBSLEN* pcbValue) {
    return WithSource(hstmt, [&](IntDbSource& s) {
        char name[8] = "@";
        const int length =
            static_cast<int>(std::to_chars(name + 1, name + sizeof name - 1, ipar).ptr - name);
        const int status = s.AddParam(name, length, fCType, rgbValue, cbValueMax, pcbValue);
        return int{status > 0 ? VORDA_ODBC_ERROR : VORDA_OK};
    });
}

DBSRETURN DBSExecute(DBSHSTMT statementHandle) {
    return WithSource(statementHandle, [&](IntDbSource& s) {
        StartExecution(*statementHandle);
        return s.Execute(statementHandle->R.get(), &statementHandle->affectedRows);
    });
}

DBSRETURN DBSExecDirect(DBSHSTMT statementHandle, const DBSCHAR* statementText, DBSINTEGER) {
    return WithSource(statementHandle, [&](IntDbSource& s) {
        StatementMemory::Normalized made;
        const auto& normalized = Normalize(*statementHandle, statementText, made);
        StartExecution(*statementHandle);
        return s.Execute(normalized.Text.Deref(), normalized.Text.Length(),
                         statementHandle->R.get(), &statementHandle->affectedRows);
    });
}

DBSRETURN DBSRowCount(DBSHSTMT statementHandle, DBSLEN* rowCount) {
    const bool known = statementHandle != nullptr && !SQLTypeHasResultSet(statementHandle->verb);
    *rowCount = known ? statementHandle->affectedRows : 0;
    return VORDA_OK;
}

DBSRETURN DBSNumResultCols(DBSHSTMT statementHandle, DBSSMALLINT* columnCount) {
    if (statementHandle == nullptr || !statementHandle->R) {
        *columnCount = -1;
        return VORDA_ODBC_ERROR;
    }
    *columnCount = static_cast<DBSSMALLINT>(statementHandle->R->GetColumnCount());
    return VORDA_OK;
}

DBSRETURN DBSDescribeCol(DBSHSTMT statementHandle, DBSINTEGER columnNumber, DBSCHAR* columnName,
                         DBSSMALLINT* nameLength, DBSSMALLINT* dataType, DBSULEN* columnSize,
                         DBSSMALLINT* precision, DBSSMALLINT* decimalDigits,
                         DBSSMALLINT* nullable) {
    static const DbColumnInfo none;
    const DbColumnInfo* info = nullptr;
    if (statementHandle != nullptr && statementHandle->R) {
        info = statementHandle->R->GetColumnInfo(ColumnIndex(columnNumber));
    }
    if (info == nullptr) info = &none;
    if (columnName != nullptr) CopyText(columnName, kColumnNameSize, info->ColumnName.Deref());
    *nameLength = static_cast<DBSSMALLINT>(info->ColumnName.Length());
    *dataType = static_cast<DBSSMALLINT>(info->DataType);
    *columnSize = static_cast<DBSULEN>(info->ColumnSize);
    *precision = static_cast<DBSSMALLINT>(info->Precision);
    *decimalDigits = static_cast<DBSSMALLINT>(info->Scale);
    *nullable = static_cast<DBSSMALLINT>(info->IsNullable);
    return VORDA_OK;
}

DBSRETURN DBSGetData(DBSHSTMT statementHandle, DBSINTEGER columnNumber, DBSSMALLINT targetType,
                     DBSPOINTER targetValue, DBSINTEGER, DBSLEN* strLen_or_Ind) {
    return WithResultSet(statementHandle, [&](IntDbResultSet& rs) {
        const int column = ColumnIndex(columnNumber);
        switch (targetType) {
            case DBTYPE_TINYINT:
            case DBTYPE_BIT:
            case DBTYPE_SMALLINT:
            case DBTYPE_INTEGER:
                return Read(rs, &IntDbResultSet::GetInt, column, targetValue);
            case DBTYPE_BIGINT:
                return Read(rs, &IntDbResultSet::GetBigint, column, targetValue);
            case DBTYPE_DOUBLE:
            case DBTYPE_FLOAT:
                return Read(rs, &IntDbResultSet::GetDouble, column, targetValue);
            case DBTYPE_DATE:
                return Read(rs, &IntDbResultSet::GetDate, column, targetValue);
            case DBTYPE_DATETIME:
                return Read(rs, &IntDbResultSet::GetDateTime, column, targetValue);
            case DBTYPE_TIME:
                return Read(rs, &IntDbResultSet::GetTime, column, targetValue);
            case DBTYPE_TEXT:
            case DBTYPE_STRING:
                return ReadText(rs, column, targetValue, strLen_or_Ind, CopyText);
            default:
                return ReadText(rs, column, targetValue, strLen_or_Ind, CopyTerminatedText);
        }
    });
}

DBSRETURN DBSGetCell(DBSHSTMT statementHandle, DBSINTEGER columnNumber, _db_cell_* cell) {
    return WithResultSet(statementHandle, [&](IntDbResultSet& rs) {
        const DbCell* const bound = rs.GetImpl()->CellOf(ColumnIndex(columnNumber));
        if (bound == nullptr) return VORDA_INDEX_OUT_OF_RANGE;
        *cell = *bound;
        return VORDA_OK;
    });
}

DBSRETURN DBSFetch(DBSHSTMT statementHandle) {
    return WithResultSet(statementHandle, [](IntDbResultSet& rs) { return rs.Next(); });
}

DBSRETURN DBSError(DBSHDBC connectionHandle, DBSINTEGER* nativeError, DBSCHAR* messageText,
                   DBSSMALLINT* textLength) {
    IntDbSource* const s = connectionHandle != nullptr ? connectionHandle->S.get() : nullptr;
    ReportError(s ? s->GetLastError() : VORDA_NOT_OPEN, s ? s->GetLastErrorMessage() : "",
                nativeError, messageText, textLength);
    return VORDA_OK;
}

DBSRETURN DBSFetchError(DBSHSTMT statementHandle, DBSINTEGER* nativeError, DBSCHAR* messageText,
                        DBSSMALLINT* textLength) {
    return WithResultSet(statementHandle, [&](IntDbResultSet& rs) {
        if (!rs.GetImpl()->FetchFailed()) return int{VORDA_NO_MORE_DATA};
        ReportError(rs.GetLastError(), rs.GetLastErrorMessage(), nativeError, messageText,
                    textLength);
        return int{VORDA_OK};
    });
}

DBSRETURN DBSGetDiagField(DBSSMALLINT, DBSHANDLE, DBSSMALLINT, DBSSMALLINT, DBSPOINTER, DBSSMALLINT,
                          DBSSMALLINT*) {
    return VORDA_OK;
}
