// Entry points: attributes of environments, connections and statements.
#include <cstdint>
#include <span>
#include <string>
#include <type_traits>
#include <variant>

#include "core/callertext.h"
#include "core/connection.h"
#include "core/environment.h"
#include "core/statement.h"
#include "entry/entry.h"
#include "entry/runtime.h"
#include "extensions.h"

namespace embedded {
namespace {

/// Integers travel in the pointer argument.
SQLULEN integerIn(SQLPOINTER value) noexcept {
    return static_cast<SQLULEN>(reinterpret_cast<std::uintptr_t>(value));
}

template <class T>
void output(SQLPOINTER value, T answer, SQLINTEGER* length) noexcept {
    if (value) *static_cast<T*>(value) = answer;
    if (length) *length = static_cast<SQLINTEGER>(sizeof answer);
}

Error unknownAttribute(SQLINTEGER attribute) {
    return {"HY092", "Unknown attribute " + std::to_string(attribute) + "."};
}

Error badValue(SQLINTEGER attribute) {
    return {"HY024", "Invalid value for attribute " + std::to_string(attribute) + "."};
}

/// An attribute with one possible value: setting that value succeeds, any other is not supported.
struct FixedAttribute {
    SQLINTEGER attribute;
    SQLULEN value;
};

constexpr FixedAttribute kFixedOfConnection[] = {
    {SQL_ATTR_ASYNC_ENABLE, SQL_ASYNC_ENABLE_OFF},
    {SQL_ATTR_CONNECTION_TIMEOUT, 0},
    {SQL_ATTR_METADATA_ID, SQL_FALSE},
    {SQL_ATTR_TXN_ISOLATION, SQL_TXN_SERIALIZABLE},
};

constexpr FixedAttribute kFixedOfStatement[] = {
    {SQL_ATTR_ASYNC_ENABLE, SQL_ASYNC_ENABLE_OFF},
    {SQL_ATTR_CONCURRENCY, SQL_CONCUR_READ_ONLY},
    {SQL_ATTR_CURSOR_SCROLLABLE, SQL_NONSCROLLABLE},
    {SQL_ATTR_CURSOR_SENSITIVITY, SQL_UNSPECIFIED},
    {SQL_ATTR_CURSOR_TYPE, SQL_CURSOR_FORWARD_ONLY},
    {SQL_ATTR_MAX_LENGTH, 0},
    {SQL_ATTR_MAX_ROWS, 0},
    {SQL_ATTR_METADATA_ID, SQL_FALSE},
    {SQL_ATTR_NOSCAN, SQL_NOSCAN_OFF},
    {SQL_ATTR_RETRIEVE_DATA, SQL_RD_ON},
    {SQL_ATTR_USE_BOOKMARKS, SQL_UB_OFF},
};

SQLULEN fixedValue(std::span<const FixedAttribute> table, SQLINTEGER attribute) {
    for (const FixedAttribute& entry : table) {
        if (entry.attribute == attribute) return entry.value;
    }
    throw unknownAttribute(attribute);
}

void setFixed(std::span<const FixedAttribute> table, SQLINTEGER attribute, SQLULEN value) {
    const SQLULEN fixed = fixedValue(table, attribute);
    if (fixed != value) {
        throw notSupported("Attribute " + std::to_string(attribute) + " has only the value " +
                           std::to_string(fixed) + ".");
    }
}

// ---- environment

void setEnvironment(Environment& environment, SQLINTEGER attribute, SQLULEN number) {
    if (attribute == SQL_ATTR_OUTPUT_NTS) {
        if (number != SQL_TRUE) throw notSupported("Texts are always terminated.");
        return;
    }
    if (attribute != SQL_ATTR_ODBC_VERSION) throw unknownAttribute(attribute);
    if (number != SQL_OV_ODBC2 && number != SQL_OV_ODBC3 && number != SQL_OV_ODBC3_80) {
        throw badValue(attribute);
    }
    environment.odbcVersion = static_cast<SQLINTEGER>(number);
}

SQLINTEGER environmentAttribute(const Environment& environment, SQLINTEGER attribute) {
    if (attribute == SQL_ATTR_OUTPUT_NTS) return SQL_TRUE;
    if (attribute != SQL_ATTR_ODBC_VERSION) throw unknownAttribute(attribute);
    return environment.odbcVersion;
}

// ---- connection

void setConnection(Connection& connection, SQLINTEGER attribute, SQLPOINTER value) {
    const SQLULEN number = integerIn(value);
    switch (attribute) {
        case SQL_ATTR_AUTOCOMMIT:
            if (number > SQL_AUTOCOMMIT_ON) throw badValue(attribute);
            return connection.setAutocommit(number == SQL_AUTOCOMMIT_ON);
        case SQL_ATTR_ACCESS_MODE:  // a hint; `Mode` of the connection string decides
            if (number > SQL_MODE_READ_ONLY) throw badValue(attribute);
            return;
        case SQL_ATTR_LOGIN_TIMEOUT:
            connection.loginTimeout = number;
            return;
        case kFilesOnlyAttribute:
            if (number > 1) throw badValue(attribute);
            connection.opensFilesOnly = number == 1;
            return;
        case kProgressAttribute:
            if (connection.database().setProgress(static_cast<const VordaProgress*>(value))) return;
            throw unknownAttribute(attribute);
        default:
            return setFixed(kFixedOfConnection, attribute, number);
    }
}

SQLUINTEGER connectionAttribute(Connection& connection, SQLINTEGER attribute) {
    switch (attribute) {
        case SQL_ATTR_AUTOCOMMIT:
            return connection.autocommit() ? SQL_AUTOCOMMIT_ON : SQL_AUTOCOMMIT_OFF;
        case SQL_ATTR_ACCESS_MODE:
            return connection.isOpen() && connection.database().isReadOnly() ? SQL_MODE_READ_ONLY
                                                                             : SQL_MODE_READ_WRITE;
        case SQL_ATTR_LOGIN_TIMEOUT:
            return static_cast<SQLUINTEGER>(connection.loginTimeout);
        case kFilesOnlyAttribute:
            return connection.opensFilesOnly;
        case SQL_ATTR_CONNECTION_DEAD:
            return connection.isOpen() && !connection.database().isDead() ? SQL_CD_FALSE
                                                                          : SQL_CD_TRUE;
        case kInTransactionAttribute:
            if (const auto isOpen = connection.database().transactionIsOpen()) return *isOpen;
            throw unknownAttribute(attribute);
        default:
            return static_cast<SQLUINTEGER>(fixedValue(kFixedOfConnection, attribute));
    }
}

// ---- statement

/// Where an attribute is kept; nothing for one that cannot be changed.
using Field = std::variant<std::monostate, SQLULEN*, SQLULEN**, SQLUSMALLINT**>;

Field fieldOf(StatementOptions& options, SQLINTEGER attribute) noexcept {
    switch (attribute) {
        case SQL_ATTR_PARAMSET_SIZE:
            return &options.parameterSets;
        case SQL_ATTR_PARAM_BIND_TYPE:
            return &options.layout.rowSize;
        case SQL_ATTR_PARAM_BIND_OFFSET_PTR:
            return &options.parameterOffset;
        case SQL_ATTR_PARAM_STATUS_PTR:
            return &options.parameterReport.status;
        case SQL_ATTR_PARAMS_PROCESSED_PTR:
            return &options.parameterReport.processed;
        case kAllResultsAttribute:
            return &options.execution.allResults;
        case SQL_ATTR_QUERY_TIMEOUT:
            return &options.execution.timeout;
        case SQL_ATTR_ROW_ARRAY_SIZE:
            return &options.rowArraySize;
        case SQL_ATTR_ROW_BIND_TYPE:
            return &options.rowSize;
        case SQL_ATTR_ROW_BIND_OFFSET_PTR:
            return &options.rowOffset;
        case SQL_ATTR_ROW_STATUS_PTR:
            return &options.rowStatus;
        case SQL_ATTR_ROWS_FETCHED_PTR:
            return &options.rowsFetched;
        default:
            return {};
    }
}

void setStatement(Statement& statement, SQLINTEGER attribute, SQLPOINTER value) {
    const SQLULEN number = integerIn(value);
    const bool isArray =
        attribute == SQL_ATTR_PARAMSET_SIZE || attribute == SQL_ATTR_ROW_ARRAY_SIZE;
    if (isArray && number == 0) throw badValue(attribute);
    if (attribute == kAllResultsAttribute && number > 1) throw badValue(attribute);
    const Field field = fieldOf(statement.changeOptions(), attribute);
    if (auto* const* place = std::get_if<SQLULEN*>(&field)) {
        **place = number;
    } else if (auto* const* numbers = std::get_if<SQLULEN**>(&field)) {
        **numbers = static_cast<SQLULEN*>(value);
    } else if (auto* const* states = std::get_if<SQLUSMALLINT**>(&field)) {
        **states = static_cast<SQLUSMALLINT*>(value);
    } else {
        setFixed(kFixedOfStatement, attribute, number);
    }
}

void getStatement(Statement& statement, SQLINTEGER attribute, SQLPOINTER value,
                  SQLINTEGER* length) {
    if (attribute == SQL_ATTR_ROW_NUMBER) return output(value, statement.rowNumber(), length);
    StatementOptions options = statement.options();
    const bool found = std::visit(
        [&](auto field) {
            if constexpr (!std::is_same_v<decltype(field), std::monostate>) {
                output(value, *field, length);
                return true;
            }
            return false;
        },
        fieldOf(options, attribute));
    if (found) return;
    output(value, fixedValue(kFixedOfStatement, attribute), length);
}

SQLRETURN lastRow(Statement& statement, SQLPOINTER value, SQLINTEGER* length) noexcept {
    const std::optional<std::int64_t> number = statement.lastRow();
    if (!number) return SQL_NO_DATA;
    output(value, *number, length);
    return SQL_SUCCESS;
}

}  // namespace
}  // namespace embedded

using namespace embedded;

SQLRETURN RT_SQLSetEnvAttr(const char*, SQLHENV handle, SQLINTEGER attribute, SQLPOINTER value,
                           SQLINTEGER) {
    return withHandle<Environment>(handle, [&](Environment& environment) {
        setEnvironment(environment, attribute, integerIn(value));
    });
}

SQLRETURN RT_SQLGetEnvAttr(const char*, SQLHENV handle, SQLINTEGER attribute, SQLPOINTER value,
                           SQLINTEGER, SQLINTEGER* length) {
    return withHandle<Environment>(handle, [&](Environment& environment) {
        output(value, environmentAttribute(environment, attribute), length);
    });
}

SQLRETURN RT_SQLSetConnectAttr(const char*, SQLHDBC handle, SQLINTEGER attribute, SQLPOINTER value,
                               SQLINTEGER) {
    return withHandle<Connection>(
        handle, [&](Connection& connection) { setConnection(connection, attribute, value); });
}

SQLRETURN RT_SQLGetConnectAttr(const char*, SQLHDBC handle, SQLINTEGER attribute, SQLPOINTER value,
                               SQLINTEGER capacity, SQLINTEGER* length) {
    return withHandle<Connection>(handle, [&](Connection& connection) {
        if (attribute == SQL_ATTR_CURRENT_CATALOG) {
            answerText(connection.diagnostics,
                       connection.isOpen() ? connection.database().catalogName() : "", value,
                       capacity, length);
        } else {
            output(value, connectionAttribute(connection, attribute), length);
        }
    });
}

SQLRETURN RT_SQLSetStmtAttr(const char*, SQLHSTMT handle, SQLINTEGER attribute, SQLPOINTER value,
                            SQLINTEGER) {
    return withHandle<Statement>(
        handle, [&](Statement& statement) { setStatement(statement, attribute, value); });
}

SQLRETURN RT_SQLGetStmtAttr(const char*, SQLHSTMT handle, SQLINTEGER attribute, SQLPOINTER value,
                            SQLINTEGER, SQLINTEGER* length) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        if (attribute == SQL_ATTR_VORDA_LAST_ROWID) return lastRow(statement, value, length);
        getStatement(statement, attribute, value, length);
        return SQLRETURN{SQL_SUCCESS};
    });
}

RT_WIDE_IS_NARROW(SQLSetConnectAttr);
RT_WIDE_IS_NARROW(SQLGetConnectAttr);
RT_WIDE_IS_NARROW(SQLSetStmtAttr);
RT_WIDE_IS_NARROW(SQLGetStmtAttr);
