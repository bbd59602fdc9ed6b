#include "sqlite/bind.h"

#include <cmath>
#include <string>

#include "sqlite/sqliteerror.h"

namespace embedded {
namespace {

int bindReal(sqlite3_stmt* statement, int number, double value) {
    // SQLite would store NULL in its place.
    if (std::isnan(value)) {
        throw Error(
            "22003",
            "Parameter " + std::to_string(number) + ": not a number (NaN) cannot be stored.",
            native::kMismatch);
    }
    return sqlite3_bind_double(statement, number, value);
}

int bindTemporal(sqlite3_stmt* statement, int number, const Temporal& value) {
    const std::string text = formatTemporal(value);
    return sqlite3_bind_text64(statement, number, text.data(), text.size(), SQLITE_TRANSIENT,
                               SQLITE_UTF8);
}

int bindValue(sqlite3_stmt* statement, int number, const Value& value,
              sqlite3_destructor_type life) {
    switch (value.kind) {
        case Value::Kind::Integer:
            return sqlite3_bind_int64(statement, number, value.integer);
        case Value::Kind::Real:
            return bindReal(statement, number, value.real);
        case Value::Kind::Text:
            return sqlite3_bind_text64(statement, number, value.bytes.data(), value.bytes.size(),
                                       life, SQLITE_UTF8);
        case Value::Kind::Binary:
            return sqlite3_bind_blob64(statement, number, value.bytes.data(), value.bytes.size(),
                                       life);
        case Value::Kind::Temporal:
            return bindTemporal(statement, number, value.temporal);
        default:
            return sqlite3_bind_null(statement, number);
    }
}

}  // namespace

void bindSet(sqlite3_stmt* statement, const ParameterSets& sets, SQLULEN set, BufferLife life,
             DecimalWatch* decimals) {
    const int markers = sqlite3_bind_parameter_count(statement);
    sets.require(markers);
    if (decimals) decimals->clear();
    for (int number = 1; number <= markers; ++number) {
        const Value value = sets.value(set, number);
        if (decimals && value.kind == Value::Kind::Text) decimals->add(number, value.bytes);
        const int result =
            bindValue(statement, number, value,
                      life == BufferLife::Execution ? SQLITE_STATIC : SQLITE_TRANSIENT);
        if (result != SQLITE_OK) throw sqliteError(sqlite3_db_handle(statement));
    }
}

}  // namespace embedded
