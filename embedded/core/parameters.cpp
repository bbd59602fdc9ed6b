#include "core/parameters.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>

namespace embedded {
namespace {

/// One value in the application's memory.
struct Slot {
    int number;        ///< of the parameter, 1-based
    const char* data;  ///< never null
    SQLLEN length;     ///< bytes; for text and binary only
};

using Reader = void (*)(const Slot& slot, Value& value);

[[noreturn]] void refuse(const char* state, const Slot& slot, const std::string& what) {
    throw Error(state, "Parameter " + std::to_string(slot.number) + ": " + what + ".",
                native::kMismatch);
}

// Application buffers need not be aligned.
template <class T>
T read(const Slot& slot) noexcept {
    T value;
    std::memcpy(&value, slot.data, sizeof value);
    return value;
}

template <class T>
void readInteger(const Slot& slot, Value& value) {
    const T given = read<T>(slot);
    if (!std::in_range<std::int64_t>(given)) refuse("22003", slot, "the integer exceeds 64 bits");
    value.kind = Value::Kind::Integer;
    value.integer = static_cast<std::int64_t>(+given);  // a byte is a number here
}

void readBit(const Slot& slot, Value& value) {
    readInteger<SQLCHAR>(slot, value);
    if (value.integer > 1) refuse("22003", slot, "a bit is neither 0 nor 1");
}

template <class T>
void readReal(const Slot& slot, Value& value) {
    value.kind = Value::Kind::Real;
    value.real = static_cast<double>(read<T>(slot));
}

template <Value::Kind kind>
void readBytes(const Slot& slot, Value& value) {
    value.kind = kind;
    value.bytes = {slot.data, static_cast<size_t>(slot.length)};
}

void readTemporal(const Slot& slot, Value& value, const Temporal& given, const char* what) {
    const bool valid = (given.shape == TemporalShape::Time || isValidDate(given.value)) &&
                       (given.shape == TemporalShape::Date || isValidTime(given.value));
    if (!valid) refuse("22007", slot, std::string("the ") + what + " does not exist");
    value.kind = Value::Kind::Temporal;
    value.temporal = given;
}

void readDate(const Slot& slot, Value& value) {
    const auto date = read<SQL_DATE_STRUCT>(slot);
    readTemporal(slot, value,
                 {TemporalShape::Date, {.year = date.year, .month = date.month, .day = date.day}},
                 "date");
}

void readTime(const Slot& slot, Value& value) {
    const auto time = read<SQL_TIME_STRUCT>(slot);
    readTemporal(
        slot, value,
        {TemporalShape::Time, {.hour = time.hour, .minute = time.minute, .second = time.second}},
        "time");
}

void readTimestamp(const Slot& slot, Value& value) {
    const auto stamp = read<SQL_TIMESTAMP_STRUCT>(slot);
    readTemporal(slot, value,
                 {TemporalShape::Both,
                  {stamp.year, stamp.month, stamp.day, stamp.hour, stamp.minute, stamp.second,
                   stamp.fraction}},
                 "timestamp");
}

enum class Length { Fixed, Text, Binary };

struct ParameterKind {
    SQLSMALLINT cType;
    Reader read;
    size_t size;  ///< bytes from value to value of a fixed type
    Length length = Length::Fixed;
};

// In front those that every value of every execution is looked up for.
constexpr ParameterKind kKinds[] = {
    {SQL_C_WCHAR, readBytes<Value::Kind::Text>, 0, Length::Text},
    {SQL_C_LONG, readInteger<SQLINTEGER>, sizeof(SQLINTEGER)},
    {SQL_C_SBIGINT, readInteger<SQLBIGINT>, sizeof(SQLBIGINT)},
    {SQL_C_DOUBLE, readReal<SQLDOUBLE>, sizeof(SQLDOUBLE)},
    {SQL_C_CHAR, readBytes<Value::Kind::Text>, 0, Length::Text},
    {SQL_C_BINARY, readBytes<Value::Kind::Binary>, 0, Length::Binary},
    {SQL_C_UBIGINT, readInteger<SQLUBIGINT>, sizeof(SQLUBIGINT)},
    {SQL_C_SLONG, readInteger<SQLINTEGER>, sizeof(SQLINTEGER)},
    {SQL_C_ULONG, readInteger<SQLUINTEGER>, sizeof(SQLUINTEGER)},
    {SQL_C_SHORT, readInteger<SQLSMALLINT>, sizeof(SQLSMALLINT)},
    {SQL_C_SSHORT, readInteger<SQLSMALLINT>, sizeof(SQLSMALLINT)},
    {SQL_C_USHORT, readInteger<SQLUSMALLINT>, sizeof(SQLUSMALLINT)},
    {SQL_C_TINYINT, readInteger<SQLCHAR>, sizeof(SQLCHAR)},
    {SQL_C_STINYINT, readInteger<SQLSCHAR>, sizeof(SQLSCHAR)},
    {SQL_C_UTINYINT, readInteger<SQLCHAR>, sizeof(SQLCHAR)},
    {SQL_C_BIT, readBit, sizeof(SQLCHAR)},
    {SQL_C_FLOAT, readReal<SQLREAL>, sizeof(SQLREAL)},
    {SQL_C_DATE, readDate, sizeof(SQL_DATE_STRUCT)},
    {SQL_C_TYPE_DATE, readDate, sizeof(SQL_DATE_STRUCT)},
    {SQL_C_TIME, readTime, sizeof(SQL_TIME_STRUCT)},
    {SQL_C_TYPE_TIME, readTime, sizeof(SQL_TIME_STRUCT)},
    {SQL_C_TIMESTAMP, readTimestamp, sizeof(SQL_TIMESTAMP_STRUCT)},
    {SQL_C_TYPE_TIMESTAMP, readTimestamp, sizeof(SQL_TIMESTAMP_STRUCT)},
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

}  // namespace

SQLSMALLINT parameterCType(SQLSMALLINT cType, SQLSMALLINT sqlType) {
    if (cType == SQL_C_DEFAULT) cType = defaultType(sqlType);
    if (kindOf(cType)) return cType;
    if (cType == SQL_C_NUMERIC || cType == SQL_C_GUID) {
        throw notSupported("Parameters of C type " + std::to_string(cType) + " are not supported.");
    }
    throw Error("HY003", "Unknown C type " + std::to_string(cType) + ".");
}

ParameterSets::ParameterSets(const std::vector<ParameterBinding>& bindings,
                             const ParameterLayout& layout, const ParameterReport& report,
                             SQLULEN count) noexcept
    : m_bindings(bindings), m_layout(layout), m_report(report), m_count(count) {
    for (SQLULEN set = 0; set < count; ++set) setStatus(set, SQL_PARAM_UNUSED);
    if (m_report.processed) *m_report.processed = 0;
}

void ParameterSets::require(int markers) const {
    for (int number = 1; number <= markers; ++number) {
        const auto index = static_cast<size_t>(number) - 1;
        if (index < m_bindings.size() && m_bindings[index].bound) continue;
        throw Error("07002",
                    "The statement has " + std::to_string(markers) +
                        " parameter marker(s), but no value is bound to marker " +
                        std::to_string(number) + ".",
                    native::kRange);
    }
}

Value ParameterSets::value(SQLULEN set, int number) const {
    const ParameterBinding& bound = binding(number);
    const ParameterKind& kind = *kindOf(bound.cType);
    const bool byRow = m_layout.rowSize != SQL_PARAM_BIND_BY_COLUMN;
    const size_t valueSize =
        kind.length == Length::Fixed ? kind.size : static_cast<size_t>(bound.bufferLength);
    const size_t valueStep = byRow ? m_layout.rowSize : valueSize;
    const size_t indicatorStep = byRow ? m_layout.rowSize : sizeof(SQLLEN);

    SQLLEN given = 0;
    const SQLLEN* indicator = nullptr;
    if (bound.indicators) {
        std::memcpy(
            &given,
            reinterpret_cast<const char*>(bound.indicators) + m_layout.offset + set * indicatorStep,
            sizeof given);
        indicator = &given;
    }

    Value value;
    if (indicator && given == SQL_NULL_DATA) return value;
    Slot slot{number, bound.data, 0};
    if (slot.data) {
        slot.data += m_layout.offset + set * valueStep;
    } else if (kind.length != Length::Fixed && given == 0) {
        slot.data = "";  // an empty value needs no buffer, yet a null pointer would mean NULL
    } else {
        refuse("HY009", slot, "the value is a null pointer");
    }
    if (kind.length != Length::Fixed) slot.length = lengthOf(slot, kind, bound, indicator);
    kind.read(slot, value);
    return value;
}

void ParameterSets::allSucceeded() noexcept {
    for (SQLULEN set = 0; set < m_count; ++set) setStatus(set, SQL_PARAM_SUCCESS);
    if (m_report.processed) *m_report.processed = m_count;
}

Error ParameterSets::failed(SQLULEN set, const Error& error) {
    setStatus(set, SQL_PARAM_ERROR);
    if (m_report.processed) *m_report.processed = set + 1;
    if (m_count == 1) return error;
    return error.in("parameter set " + std::to_string(set + 1) + " of " + std::to_string(m_count));
}

}  // namespace embedded
