// Entry points: diagnostics. These neither clear nor add to what they read.
#include <cstring>
#include <string_view>
#include <utility>

#include "core/callertext.h"
#include "core/connection.h"
#include "core/environment.h"
#include "core/statement.h"
#include "entry/entry.h"
#include "entry/runtime.h"

namespace embedded {
namespace {

struct Output {
    SQLCHAR* state;
    SQLINTEGER* native;
    SQLCHAR* message;
    SQLSMALLINT capacity;
    SQLSMALLINT* length;
};

SQLRETURN writeRecord(const DiagnosticRecord& record, const Output& output) noexcept {
    if (output.state) std::memcpy(output.state, record.state.data(), SQL_SQLSTATE_SIZE + 1);
    if (output.native) *output.native = record.native;
    return outputText(record.message, output.message, output.capacity, output.length)
               ? SQL_SUCCESS_WITH_INFO
               : SQL_SUCCESS;
}

void writeNone(const Output& output) noexcept {
    if (output.state) std::memcpy(output.state, "00000", SQL_SQLSTATE_SIZE + 1);
    if (output.native) *output.native = 0;
    outputText({}, output.message, output.capacity, output.length);
}

template <class T, class Read>
SQLRETURN readOf(SQLHANDLE handle, const Read& read) noexcept {
    const auto object = HandleRegistry::instance().find<T>(handle);
    if (!object) return SQL_INVALID_HANDLE;
    const Lock lock(object->mutex());
    return read(std::as_const(object->diagnostics));
}

/// What `read` makes of the diagnostics of a handle.
template <class Read>
SQLRETURN readOf(SQLSMALLINT type, SQLHANDLE handle, const Read& read) noexcept {
    switch (type) {
        case SQL_HANDLE_ENV:
            return readOf<Environment>(handle, read);
        case SQL_HANDLE_DBC:
            return readOf<Connection>(handle, read);
        case SQL_HANDLE_STMT:
            return readOf<Statement>(handle, read);
        default:
            return SQL_INVALID_HANDLE;
    }
}

template <class T>
SQLRETURN writeNumber(T number, SQLPOINTER value) noexcept {
    if (value) std::memcpy(value, &number, sizeof number);
    return SQL_SUCCESS;
}

SQLRETURN writeField(const DiagnosticRecord& record, SQLSMALLINT field, SQLPOINTER value,
                     SQLSMALLINT capacity, SQLSMALLINT* length) noexcept {
    switch (field) {
        case SQL_DIAG_NATIVE:
            return writeNumber(SQLINTEGER{record.native}, value);
        case SQL_DIAG_ROW_NUMBER:
            return writeNumber(record.row, value);
        case SQL_DIAG_SQLSTATE:
        case SQL_DIAG_MESSAGE_TEXT: {
            if (capacity < 0) return SQL_ERROR;
            const bool isState = field == SQL_DIAG_SQLSTATE;
            const std::string_view text =
                isState ? std::string_view(record.state.data()) : std::string_view(record.message);
            return outputText(text, value, capacity, length) ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS;
        }
        default:
            return SQL_ERROR;
    }
}

template <class T>
SQLRETURN takeRecord(SQLHANDLE handle, const Output& output) noexcept {
    const auto object = HandleRegistry::instance().find<T>(handle);
    if (!object) return SQL_INVALID_HANDLE;
    if (output.capacity < 0) return SQL_ERROR;
    const Lock lock(object->mutex());
    const DiagnosticRecord* record = object->diagnostics.at(0);
    if (!record) {
        writeNone(output);
        return SQL_NO_DATA;
    }
    const SQLRETURN result = writeRecord(*record, output);
    object->diagnostics.consumeFirst();
    return result;
}

}  // namespace
}  // namespace embedded

using namespace embedded;

SQLRETURN RT_SQLGetDiagRec(const char*, SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT number,
                           SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message,
                           SQLSMALLINT capacity, SQLSMALLINT* length) {
    const Output output{state, native, message, capacity, length};
    return readOf(type, handle, [&](const Diagnostics& diagnostics) -> SQLRETURN {
        if (number < 1 || output.capacity < 0) return SQL_ERROR;
        const DiagnosticRecord* record = diagnostics.at(static_cast<size_t>(number) - 1);
        return record ? writeRecord(*record, output) : SQLRETURN{SQL_NO_DATA};
    });
}

SQLRETURN RT_SQLGetDiagField(const char*, SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT number,
                             SQLSMALLINT field, SQLPOINTER value, SQLSMALLINT capacity,
                             SQLSMALLINT* length) {
    return readOf(type, handle, [&](const Diagnostics& diagnostics) -> SQLRETURN {
        if (field == SQL_DIAG_NUMBER)
            return writeNumber(static_cast<SQLINTEGER>(diagnostics.count()), value);
        if (number < 1) return SQL_ERROR;
        const DiagnosticRecord* record = diagnostics.at(static_cast<size_t>(number) - 1);
        return record ? writeField(*record, field, value, capacity, length)
                      : SQLRETURN{SQL_NO_DATA};
    });
}

SQLRETURN RT_SQLError(const char*, SQLHENV environment, SQLHDBC connection, SQLHSTMT statement,
                      SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message, SQLSMALLINT capacity,
                      SQLSMALLINT* length) {
    const Output output{state, native, message, capacity, length};
    if (statement) return takeRecord<Statement>(statement, output);
    if (connection) return takeRecord<Connection>(connection, output);
    return takeRecord<Environment>(environment, output);
}

RT_WIDE_IS_NARROW(SQLGetDiagField);
RT_WIDE_IS_NARROW(SQLGetDiagRec);
RT_WIDE_IS_NARROW(SQLError);
