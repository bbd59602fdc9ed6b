#include "parameters.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

#include "error.h"
#include "sqliteerror.h"
#include "temporal.h"

namespace embedded {
namespace {

/// One value on its way into SQLite.
struct Slot {
    sqlite3_stmt* statement;
    int number;        ///< 1-based
    const char* data;  ///< never null
    SQLLEN length;     ///< bytes; for text and binary only
    sqlite3_destructor_type life;
};

using Binder = int (*)(const Slot& slot);

[[noreturn]] void refuse(const char* state, const Slot& slot, const std::string& what) {
    throw Error(state, "Parameter " + std::to_string(slot.number) + ": " + what + ".",
                SQLITE_MISMATCH);
}

// Application buffers need not be aligned.
template <class T>
T read(const Slot& slot) noexcept {
    T value;
    std::memcpy(&value, slot.data, sizeof value);
    return value;
}

template <class T>
int bindInteger(const Slot& slot) {
    const T value = read<T>(slot);
    if (!std::in_range<sqlite3_int64>(value)) refuse("22003", slot, "the integer exceeds 64 bits");
    return sqlite3_bind_int64(slot.statement, slot.number, static_cast<sqlite3_int64>(value));
}

int bindBit(const Slot& slot) {
    const SQLCHAR value = read<SQLCHAR>(slot);
    if (value > 1) refuse("22003", slot, "a bit is neither 0 nor 1");
    return sqlite3_bind_int(slot.statement, slot.number, value);
}

template <class T>
int bindReal(const Slot& slot) {
    const auto value = static_cast<double>(read<T>(slot));
    // SQLite would store NULL in its place.
    if (std::isnan(value)) refuse("22003", slot, "not a number (NaN) cannot be stored");
    return sqlite3_bind_double(slot.statement, slot.number, value);
}

int bindText(const Slot& slot) {
    return sqlite3_bind_text64(slot.statement, slot.number, slot.data,
                               static_cast<sqlite3_uint64>(slot.length), slot.life, SQLITE_UTF8);
}

int bindBinary(const Slot& slot) {
    return sqlite3_bind_blob64(slot.statement, slot.number, slot.data,
                               static_cast<sqlite3_uint64>(slot.length), slot.life);
}

int bindTemporalText(const Slot& slot, const std::string& text) {
    return sqlite3_bind_text64(slot.statement, slot.number, text.data(), text.size(),
                               SQLITE_TRANSIENT, SQLITE_UTF8);
}

int bindDate(const Slot& slot) {
    const auto date = read<SQL_DATE_STRUCT>(slot);
    const DateTime value{.year = date.year, .month = date.month, .day = date.day};
    if (!isValidDate(value)) refuse("22007", slot, "the date does not exist");
    return bindTemporalText(slot, formatDate(value));
}

int bindTime(const Slot& slot) {
    const auto time = read<SQL_TIME_STRUCT>(slot);
    const DateTime value{.hour = time.hour, .minute = time.minute, .second = time.second};
    if (!isValidTime(value)) refuse("22007", slot, "the time does not exist");
    return bindTemporalText(slot, formatTime(value));
}

int bindTimestamp(const Slot& slot) {
    const auto stamp = read<SQL_TIMESTAMP_STRUCT>(slot);
    const DateTime value{stamp.year,   stamp.month,  stamp.day,     stamp.hour,
                         stamp.minute, stamp.second, stamp.fraction};
    if (!isValidDate(value) || !isValidTime(value)) {
        refuse("22007", slot, "the timestamp does not exist");
    }
    return bindTemporalText(slot, formatDateTime(value));
}

enum class Length { Fixed, Text, Binary };

struct ParameterKind {
    SQLSMALLINT cType;
    Binder bind;
    size_t size;  ///< bytes from value to value of a fixed type
    Length length = Length::Fixed;
};

constexpr ParameterKind kKinds[] = {
    {SQL_C_WCHAR, bindText, 0, Length::Text},
    {SQL_C_CHAR, bindText, 0, Length::Text},
    {SQL_C_BINARY, bindBinary, 0, Length::Binary},
    {SQL_C_SBIGINT, bindInteger<SQLBIGINT>, sizeof(SQLBIGINT)},
    {SQL_C_UBIGINT, bindInteger<SQLUBIGINT>, sizeof(SQLUBIGINT)},
    {SQL_C_LONG, bindInteger<SQLINTEGER>, sizeof(SQLINTEGER)},
    {SQL_C_SLONG, bindInteger<SQLINTEGER>, sizeof(SQLINTEGER)},
    {SQL_C_ULONG, bindInteger<SQLUINTEGER>, sizeof(SQLUINTEGER)},
    {SQL_C_SHORT, bindInteger<SQLSMALLINT>, sizeof(SQLSMALLINT)},
    {SQL_C_SSHORT, bindInteger<SQLSMALLINT>, sizeof(SQLSMALLINT)},
    {SQL_C_USHORT, bindInteger<SQLUSMALLINT>, sizeof(SQLUSMALLINT)},
    {SQL_C_TINYINT, bindInteger<SQLCHAR>, sizeof(SQLCHAR)},
    {SQL_C_STINYINT, bindInteger<SQLSCHAR>, sizeof(SQLSCHAR)},
    {SQL_C_UTINYINT, bindInteger<SQLCHAR>, sizeof(SQLCHAR)},
    {SQL_C_BIT, bindBit, sizeof(SQLCHAR)},
    {SQL_C_DOUBLE, bindReal<SQLDOUBLE>, sizeof(SQLDOUBLE)},
    {SQL_C_FLOAT, bindReal<SQLREAL>, sizeof(SQLREAL)},
    {SQL_C_DATE, bindDate, sizeof(SQL_DATE_STRUCT)},
    {SQL_C_TYPE_DATE, bindDate, sizeof(SQL_DATE_STRUCT)},
    {SQL_C_TIME, bindTime, sizeof(SQL_TIME_STRUCT)},
    {SQL_C_TYPE_TIME, bindTime, sizeof(SQL_TIME_STRUCT)},
    {SQL_C_TIMESTAMP, bindTimestamp, sizeof(SQL_TIMESTAMP_STRUCT)},
    {SQL_C_TYPE_TIMESTAMP, bindTimestamp, sizeof(SQL_TIMESTAMP_STRUCT)},
};

const ParameterKind* kindOf(SQLSMALLINT cType) noexcept {
    const auto found = std::find_if(std::begin(kKinds), std::end(kKinds),
                                    [cType](const ParameterKind& k) { return k.cType == cType; });
    return found == std::end(kKinds) ? nullptr : found;
}

/// What SQL_C_DEFAULT stands for with a parameter's SQL type; text for those that are not listed.
struct DefaultType {
    SQLSMALLINT sqlType;
    SQLSMALLINT cType;
};

constexpr DefaultType kDefaults[] = {
    {SQL_BIGINT, SQL_C_SBIGINT},
    {SQL_INTEGER, SQL_C_SLONG},
    {SQL_SMALLINT, SQL_C_SSHORT},
    {SQL_TINYINT, SQL_C_TINYINT},
    {SQL_BIT, SQL_C_BIT},
    {SQL_REAL, SQL_C_FLOAT},
    {SQL_FLOAT, SQL_C_DOUBLE},
    {SQL_DOUBLE, SQL_C_DOUBLE},
    {SQL_BINARY, SQL_C_BINARY},
    {SQL_VARBINARY, SQL_C_BINARY},
    {SQL_LONGVARBINARY, SQL_C_BINARY},
    {SQL_DATE, SQL_C_DATE},
    {SQL_TYPE_DATE, SQL_C_DATE},
    {SQL_TIME, SQL_C_TIME},
    {SQL_TYPE_TIME, SQL_C_TIME},
    {SQL_TIMESTAMP, SQL_C_TIMESTAMP},
    {SQL_TYPE_TIMESTAMP, SQL_C_TIMESTAMP},
};

SQLSMALLINT defaultType(SQLSMALLINT sqlType) noexcept {
    const auto found =
        std::find_if(std::begin(kDefaults), std::end(kDefaults),
                     [sqlType](const DefaultType& entry) { return entry.sqlType == sqlType; });
    return found == std::end(kDefaults) ? SQLSMALLINT{SQL_C_CHAR} : found->cType;
}

SQLLEN terminatedLength(const Slot& slot, SQLLEN bufferLength) noexcept {
    const size_t length = bufferLength > 0 ? strnlen(slot.data, static_cast<size_t>(bufferLength))
                                           : std::strlen(slot.data);
    return static_cast<SQLLEN>(length);
}

/// The length of a text or binary value from its indicator, if there is one.
SQLLEN lengthOf(const Slot& slot, const ParameterKind& kind, const ParameterBinding& binding,
                const SQLLEN* indicator) {
    const SQLLEN given = indicator ? *indicator : SQL_NTS;
    if (given >= 0) return given;
    if (given == SQL_NTS && kind.length == Length::Text) {
        return terminatedLength(slot, binding.bufferLength);
    }
    if (given == SQL_DATA_AT_EXEC || given <= SQL_LEN_DATA_AT_EXEC_OFFSET) {
        throw notSupported("Parameter " + std::to_string(slot.number) +
                           ": data at execution is not supported.");
    }
    refuse(given == SQL_DEFAULT_PARAM ? "07S01" : "HY090", slot,
           "invalid length " + std::to_string(given));
}

void bindOne(sqlite3_stmt* statement, int number, const ParameterBinding& binding,
             const ParameterLayout& layout, SQLULEN set, sqlite3_destructor_type life) {
    const ParameterKind& kind = *kindOf(binding.cType);
    const bool byRow = layout.rowSize != SQL_PARAM_BIND_BY_COLUMN;
    const size_t valueSize =
        kind.length == Length::Fixed ? kind.size : static_cast<size_t>(binding.bufferLength);
    const size_t valueStep = byRow ? layout.rowSize : valueSize;
    const size_t indicatorStep = byRow ? layout.rowSize : sizeof(SQLLEN);

    SQLLEN given = 0;
    const SQLLEN* indicator = nullptr;
    if (binding.indicators) {
        std::memcpy(
            &given,
            reinterpret_cast<const char*>(binding.indicators) + layout.offset + set * indicatorStep,
            sizeof given);
        indicator = &given;
    }

    int result = SQLITE_OK;
    if (indicator && given == SQL_NULL_DATA) {
        result = sqlite3_bind_null(statement, number);
    } else {
        Slot slot{statement, number, binding.data, 0, life};
        if (slot.data) {
            slot.data += layout.offset + set * valueStep;
        } else if (kind.length != Length::Fixed && given == 0) {
            slot.data = "";  // an empty value needs no buffer, yet a null pointer would mean NULL
        } else {
            refuse("HY009", slot, "the value is a null pointer");
        }
        if (kind.length != Length::Fixed) slot.length = lengthOf(slot, kind, binding, indicator);
        result = kind.bind(slot);
    }
    if (result != SQLITE_OK) throw sqliteError(sqlite3_db_handle(statement));
}

}  // namespace

SQLSMALLINT parameterCType(SQLSMALLINT cType, SQLSMALLINT sqlType) {
    if (cType == SQL_C_DEFAULT) cType = defaultType(sqlType);
    if (kindOf(cType)) return cType;
    if (cType == SQL_C_NUMERIC || cType == SQL_C_GUID) {
        throw notSupported("Parameters of C type " + std::to_string(cType) + " are not supported.");
    }
    throw Error("HY003", "Unknown C type " + std::to_string(cType) + ".");
}

void bindParameterSet(sqlite3_stmt* statement, const std::vector<ParameterBinding>& bindings,
                      const ParameterLayout& layout, SQLULEN set, BufferLife life) {
    const int markers = sqlite3_bind_parameter_count(statement);
    for (int number = 1; number <= markers; ++number) {
        const auto index = static_cast<size_t>(number) - 1;
        if (index >= bindings.size() || !bindings[index].bound) {
            throw Error("07002",
                        "The statement has " + std::to_string(markers) +
                            " parameter marker(s), but no value is bound to marker " +
                            std::to_string(number) + ".",
                        SQLITE_RANGE);
        }
        bindOne(statement, number, bindings[index], layout, set,
                life == BufferLife::Execution ? SQLITE_STATIC : SQLITE_TRANSIENT);
    }
}

}  // namespace embedded
