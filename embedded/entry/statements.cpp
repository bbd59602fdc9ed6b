// Entry points: statements and results.
#include <algorithm>
#include <limits>
#include <string>

#include "core/callertext.h"
#include "core/describe.h"
#include "core/statement.h"
#include "entry/entry.h"
#include "entry/runtime.h"
#include "extensions.h"

namespace embedded {
namespace {

void checkTarget(SQLSMALLINT cType, SQLLEN capacity, const SQLLEN* indicator) {
    if (capacity < 0)
        throw Error("HY090", "Invalid buffer length " + std::to_string(capacity) + ".");
    if (cType == kCellCType && (capacity < kSmallestCell || !indicator)) {
        throw Error("HY090", "A cell needs a buffer of " + std::to_string(kSmallestCell) +
                                 " bytes and an indicator.");
    }
    if (isDeliverable(cType)) return;
    if (cType == SQL_C_NUMERIC || cType == SQL_C_GUID) {
        throw notSupported("Values cannot be delivered in the C type " + std::to_string(cType) +
                           ".");
    }
    throw Error("HY003", "Unknown C type " + std::to_string(cType) + ".");
}

}  // namespace
}  // namespace embedded

using namespace embedded;

SQLRETURN RT_SQLPrepare(const char*, SQLHSTMT handle, SQLCHAR* sql, SQLINTEGER length) {
    return withHandle<Statement>(
        handle, [&](Statement& statement) { statement.prepare(inputText(sql, length)); });
}

SQLRETURN RT_SQLExecute(const char*, SQLHSTMT handle) {
    return withHandle<Statement>(handle, [](Statement& statement) { return statement.execute(); });
}

SQLRETURN RT_SQLExecDirect(const char*, SQLHSTMT handle, SQLCHAR* sql, SQLINTEGER length) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        return statement.executeDirect(inputText(sql, length));
    });
}

SQLRETURN RT_SQLNumParams(const char*, SQLHSTMT handle, SQLSMALLINT* count) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        constexpr int kMost = std::numeric_limits<SQLSMALLINT>::max();
        const int markers = statement.parameterCount();
        if (count) *count = static_cast<SQLSMALLINT>(std::min(markers, kMost));
    });
}

SQLRETURN RT_SQLDescribeParam(const char*, SQLHSTMT handle, SQLUSMALLINT number,
                              SQLSMALLINT* sqlType, SQLULEN* size, SQLSMALLINT* digits,
                              SQLSMALLINT* nullable) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        const ParameterType type = statement.parameterType(number);
        if (sqlType) *sqlType = type.sqlType;
        if (size) *size = type.size;
        if (digits) *digits = type.scale;
        if (nullable) *nullable = type.nullable;
    });
}

SQLRETURN RT_SQLBindParameter(const char*, SQLHSTMT handle, SQLUSMALLINT number,
                              SQLSMALLINT direction, SQLSMALLINT cType, SQLSMALLINT sqlType,
                              SQLULEN, SQLSMALLINT, SQLPOINTER value, SQLLEN capacity,
                              SQLLEN* indicator) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        if (number == 0) throw Error("07009", "Parameters are numbered from 1.", native::kRange);
        if (direction != SQL_PARAM_INPUT)
            throw notSupported("Only input parameters are supported.");
        if (capacity < 0) throw Error("HY090", "Invalid buffer length.");
        if (!value && !indicator) {
            throw Error("HY009", "A parameter needs a value or an indicator.", native::kMisuse);
        }
        statement.bindParameter(number, {.cType = parameterCType(cType, sqlType),
                                         .sqlType = sqlType,
                                         .data = static_cast<const char*>(value),
                                         .bufferLength = capacity,
                                         .indicators = indicator,
                                         .bound = true});
    });
}

SQLRETURN RT_SQLRowCount(const char*, SQLHSTMT handle, SQLLEN* count) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        const SQLLEN rows = statement.rowCount();
        if (count) *count = rows;
    });
}

// Takes no lock: it is there to be called while another thread holds it.
SQLRETURN RT_SQLCancel(const char*, SQLHSTMT handle) {
    const auto statement = HandleRegistry::instance().find<Statement>(handle);
    if (!statement) return SQL_INVALID_HANDLE;
    statement->cancel();
    return SQL_SUCCESS;
}

SQLRETURN RT_SQLNumResultCols(const char*, SQLHSTMT handle, SQLSMALLINT* count) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        const int columns = statement.columnCount();
        if (count) *count = static_cast<SQLSMALLINT>(columns);
    });
}

SQLRETURN RT_SQLDescribeCol(const char*, SQLHSTMT handle, SQLUSMALLINT number, SQLCHAR* name,
                            SQLSMALLINT nameCapacity, SQLSMALLINT* nameLength, SQLSMALLINT* sqlType,
                            SQLULEN* size, SQLSMALLINT* digits, SQLSMALLINT* nullable) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        const Column& column = describedColumn(statement, number);
        answerText(statement.diagnostics, column.name, name, nameCapacity, nameLength,
                   "The column name was cut.");
        if (sqlType) *sqlType = column.type.sqlType;
        if (size) *size = column.type.size;
        if (digits) *digits = column.type.scale;
        if (nullable) *nullable = statement.connection().database().nullability(column);
    });
}

SQLRETURN RT_SQLColAttribute(const char*, SQLHSTMT handle, SQLUSMALLINT column, SQLUSMALLINT field,
                             SQLPOINTER text, SQLSMALLINT capacity, SQLSMALLINT* length,
                             SQLLEN* number) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        columnAttribute(statement, column, field, {text, capacity, length, number});
    });
}

SQLRETURN RT_SQLBindCol(const char*, SQLHSTMT handle, SQLUSMALLINT column, SQLSMALLINT cType,
                        SQLPOINTER target, SQLLEN capacity, SQLLEN* indicator) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        if (column == 0) throw Error("07009", "Columns are numbered from 1.", native::kRange);
        if (target) checkTarget(cType, capacity, indicator);
        statement.bindColumn(column, {cType, target, capacity, indicator});
    });
}

SQLRETURN RT_SQLFetch(const char*, SQLHSTMT handle) {
    return withHandle<Statement>(handle, [](Statement& statement) { return statement.fetch(); });
}

SQLRETURN RT_SQLGetData(const char*, SQLHSTMT handle, SQLUSMALLINT column, SQLSMALLINT cType,
                        SQLPOINTER target, SQLLEN capacity, SQLLEN* indicator) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        checkTarget(cType, capacity, indicator);
        if (!target) throw Error("HY009", "There is no buffer for the value.", native::kMisuse);
        return statement.getData(column, cType, {target, capacity, indicator, nullptr});
    });
}

SQLRETURN RT_SQLSetPos(const char*, SQLHSTMT handle, SQLSETPOSIROW row, SQLUSMALLINT operation,
                       SQLUSMALLINT lock) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        if (operation != SQL_POSITION || lock != SQL_LOCK_NO_CHANGE)
            throw notSupported("Rows can be pointed at, and neither changed nor locked.");
        statement.setPosition(row);
    });
}

SQLRETURN RT_SQLMoreResults(const char*, SQLHSTMT handle) {
    return withHandle<Statement>(handle,
                                 [](Statement& statement) { return statement.moreResults(); });
}

SQLRETURN RT_SQLCloseCursor(const char*, SQLHSTMT handle) {
    return withHandle<Statement>(handle, [](Statement& statement) {
        if (!statement.hasCursor()) {
            throw Error("24000", "No cursor is open on the statement.", native::kMisuse);
        }
        statement.closeCursor();
    });
}

RT_WIDE_IS_NARROW(SQLPrepare);
RT_WIDE_IS_NARROW(SQLExecDirect);
RT_WIDE_IS_NARROW(SQLDescribeCol);
RT_WIDE_IS_NARROW(SQLColAttribute);
