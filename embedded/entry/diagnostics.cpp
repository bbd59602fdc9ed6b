// Entry points: diagnostics. These neither clear nor add to what they read.
#include <cstring>

#include "core/connection.h"
#include "core/environment.h"
#include "core/statement.h"
#include "entry/entry.h"
#include "entry/runtime.h"
#include "values/text.h"

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
    const bool cut = outputText(record.message, output.message, output.capacity, output.length);
    return cut && output.message ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS;
}

void writeNone(const Output& output) noexcept {
    if (output.state) std::memcpy(output.state, "00000", SQL_SQLSTATE_SIZE + 1);
    if (output.native) *output.native = 0;
    outputText("", output.message, output.capacity, output.length);
}

template <class T>
SQLRETURN readRecord(SQLHANDLE handle, SQLSMALLINT number, const Output& output) noexcept {
    const auto object = HandleRegistry::instance().find<T>(handle);
    if (!object) return SQL_INVALID_HANDLE;
    if (number < 1 || output.capacity < 0) return SQL_ERROR;
    const Lock lock(object->mutex());
    const DiagnosticRecord* record = object->diagnostics.at(static_cast<size_t>(number) - 1);
    return record ? writeRecord(*record, output) : SQLRETURN{SQL_NO_DATA};
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
    switch (type) {
        case SQL_HANDLE_ENV:
            return readRecord<Environment>(handle, number, output);
        case SQL_HANDLE_DBC:
            return readRecord<Connection>(handle, number, output);
        case SQL_HANDLE_STMT:
            return readRecord<Statement>(handle, number, output);
        default:
            return SQL_INVALID_HANDLE;
    }
}

SQLRETURN RT_SQLError(const char*, SQLHENV environment, SQLHDBC connection, SQLHSTMT statement,
                      SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message, SQLSMALLINT capacity,
                      SQLSMALLINT* length) {
    const Output output{state, native, message, capacity, length};
    if (statement) return takeRecord<Statement>(statement, output);
    if (connection) return takeRecord<Connection>(connection, output);
    return takeRecord<Environment>(environment, output);
}

RT_WIDE_IS_NARROW(SQLGetDiagRec);
RT_WIDE_IS_NARROW(SQLError);
