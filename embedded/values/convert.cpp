#include "values/convert.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "extensions.h"
#include "values/numbers.h"
#include "values/temporal.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr const char* kInvalid = "22018";
constexpr const char* kOutOfRange = "22003";

// A time of day delivered as a timestamp needs some date, the same on every day it is read.
constexpr int kTimeYear = 1900;
constexpr int kTimeMonth = 1;
constexpr int kTimeDay = 1;

std::string shown(const Cell& cell) {
    NumberBuffer buffer;
    switch (cell.kind) {
        case Cell::Kind::Integer:
            return "the integer " + std::string(formatInteger(cell.integer, buffer));
        case Cell::Kind::Real:
            return "the number " + std::string(formatDouble(cell.real, buffer));
        case Cell::Kind::Text:
            return "the text " + inQuotes(cell.bytes);
        case Cell::Kind::Temporal:
            return formatTemporal(*cell.temporal);
        default:
            return "a blob";
    }
}

[[noreturn]] void refuse(const char* state, const Cell& cell, const char* wanted) {
    throw ConversionError(state, shown(cell) + " is not " + wanted);
}

template <class T>
Delivery store(const T& value, const Target& target) {
    if (target.partOffset) {
        if (*target.partOffset != 0) return Delivery::Nothing;
        *target.partOffset = sizeof value;
    }
    if (target.buffer) std::memcpy(target.buffer, &value, sizeof value);
    if (target.indicator) *target.indicator = static_cast<SQLLEN>(sizeof value);
    return Delivery::Whole;
}

// ---- text and binary

// Bytes of `rest` that go into a text buffer with room for `room` bytes before the terminator. A
// value read in parts must advance even through a buffer smaller than one character.
size_t textPart(std::string_view rest, size_t room, bool inParts) noexcept {
    const size_t whole = wholeCharacters(rest, room);
    return whole == 0 && inParts ? std::min(rest.size(), room) : whole;
}

Delivery storeBytes(std::string_view value, const Target& target, bool terminated) {
    const size_t offset = target.partOffset ? *target.partOffset : 0;
    // An empty value is read once, too.
    if (target.partOffset && offset > value.size()) return Delivery::Nothing;
    const std::string_view rest = value.substr(offset);
    const auto capacity = static_cast<size_t>(target.capacity);
    size_t kept = 0;
    if (!terminated) {
        kept = std::min(rest.size(), capacity);
    } else if (capacity > 0) {
        kept = textPart(rest, capacity - 1, target.partOffset != nullptr);
    }
    if (target.buffer && capacity > 0) {
        // An empty blob may come as a null pointer, which memcpy must not get.
        std::copy_n(rest.data(), kept, static_cast<char*>(target.buffer));
        if (terminated) static_cast<char*>(target.buffer)[kept] = '\0';
    }
    if (target.indicator) *target.indicator = static_cast<SQLLEN>(rest.size());
    const bool truncated = kept < rest.size() || (terminated && capacity == 0);
    if (target.partOffset) *target.partOffset += kept + (truncated ? 0 : 1);
    return truncated ? Delivery::Truncated : Delivery::Whole;
}

Delivery toText(const Cell& cell, const ColumnType&, const Target& target) {
    NumberBuffer buffer;
    switch (cell.kind) {
        case Cell::Kind::Text:
            return storeBytes(cell.bytes, target, true);
        case Cell::Kind::Integer:
            return storeBytes(formatInteger(cell.integer, buffer), target, true);
        case Cell::Kind::Real:
            return storeBytes(formatDouble(cell.real, buffer), target, true);
        case Cell::Kind::Temporal:
            return storeBytes(formatTemporal(*cell.temporal), target, true);
        default:
            refuse(kInvalid, cell, "a text");
    }
}

Delivery toHexText(const Cell& cell, const ColumnType& column, const Target& target) {
    if (cell.kind != Cell::Kind::Binary) return toText(cell, column, target);
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string hex;
    hex.reserve(2 * cell.bytes.size());
    for (const char c : cell.bytes) {
        const auto byte = static_cast<unsigned char>(c);
        hex += kDigits[byte >> 4U];
        hex += kDigits[byte & 15U];
    }
    return storeBytes(hex, target, true);
}

/// The digits of a decimal number; those of an integer need no more than its own text.
std::string decimalOf(const Cell& cell) {
    NumberBuffer buffer;
    std::optional<std::string> digits;
    if (cell.kind == Cell::Kind::Integer) digits = formatInteger(cell.integer, buffer);
    if (cell.kind == Cell::Kind::Text) digits = plainDecimal(cell.bytes);
    if (cell.kind == Cell::Kind::Real) digits = plainDecimal(cell.real);
    if (!digits) refuse(kInvalid, cell, "a decimal number");
    return *digits;
}

Delivery toDecimalText(const Cell& cell, const ColumnType& column, const Target& target) {
    if (cell.kind == Cell::Kind::Integer) return toText(cell, column, target);
    return storeBytes(decimalOf(cell), target, true);
}

Delivery toBinary(const Cell& cell, const ColumnType&, const Target& target) {
    if (cell.kind != Cell::Kind::Binary && cell.kind != Cell::Kind::Text)
        refuse(kInvalid, cell, "binary data");
    return storeBytes(cell.bytes, target, false);
}

// ---- numbers

/// The first row of an assumed column was one. A text in another then must not become a number that
/// is written otherwise ("00501"), which nobody has asked for.
bool isNumber(const ColumnType& column) noexcept {
    return column.sqlType == SQL_BIGINT || column.sqlType == SQL_DOUBLE;
}

std::int64_t integerOf(const Cell& cell, const ColumnType& column) {
    std::int64_t value = 0;
    if (cell.kind == Cell::Kind::Integer) return cell.integer;
    if (cell.kind == Cell::Kind::Real) {
        if (!exactInteger(cell.real, value)) refuse(kOutOfRange, cell, "a 64-bit integer");
        return value;
    }
    if (cell.kind != Cell::Kind::Text) refuse(kInvalid, cell, "an integer");
    const std::string_view text = trimmed(cell.bytes);
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (parsed.ec == std::errc::result_out_of_range) refuse(kOutOfRange, cell, "a 64-bit integer");
    if (parsed.ec != std::errc{} || parsed.ptr != text.data() + text.size()) {
        refuse(kInvalid, cell, "an integer");
    }
    NumberBuffer buffer;
    if (column.assumed && isNumber(column) && formatInteger(value, buffer) != cell.bytes) {
        refuse(kInvalid, cell, "an integer as it would be written");
    }
    return value;
}

template <class T>
Delivery toInteger(const Cell& cell, const ColumnType& column, const Target& target) {
    const std::int64_t value = integerOf(cell, column);
    if (!std::in_range<T>(value))
        refuse(kOutOfRange, cell, "within the range of the bound integer");
    return store(static_cast<T>(value), target);
}

Delivery toBit(const Cell& cell, const ColumnType& column, const Target& target) {
    const std::int64_t value = integerOf(cell, column);
    if (value != 0 && value != 1) refuse(kOutOfRange, cell, "0 or 1");
    return store(static_cast<SQLCHAR>(value), target);
}

double doubleOf(const Cell& cell, const ColumnType& column) {
    if (cell.kind == Cell::Kind::Real) return cell.real;
    if (cell.kind == Cell::Kind::Integer) {
        const auto value = static_cast<double>(cell.integer);
        std::int64_t back = 0;
        if (!exactInteger(value, back) || back != cell.integer) {
            refuse(kOutOfRange, cell, "exact as a double");
        }
        return value;
    }
    if (cell.kind != Cell::Kind::Text) refuse(kInvalid, cell, "a number");
    const std::string_view text = trimmed(cell.bytes);
    double value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    if (parsed.ec == std::errc::result_out_of_range) refuse(kOutOfRange, cell, "within a double");
    if (parsed.ec != std::errc{} || parsed.ptr != text.data() + text.size()) {
        refuse(kInvalid, cell, "a number");
    }
    NumberBuffer buffer;
    if (column.assumed && isNumber(column) && formatDouble(value, buffer) != cell.bytes) {
        refuse(kInvalid, cell, "a number as it would be written");
    }
    return value;
}

Delivery toDouble(const Cell& cell, const ColumnType& column, const Target& target) {
    return store(doubleOf(cell, column), target);
}

// Asking for single precision asks for its rounding; only a value beyond its range is refused.
Delivery toFloat(const Cell& cell, const ColumnType& column, const Target& target) {
    const double value = doubleOf(cell, column);
    if (std::isfinite(value) && std::abs(value) > std::numeric_limits<float>::max()) {
        refuse(kOutOfRange, cell, "within single precision");
    }
    return store(static_cast<float>(value), target);
}

// ---- dates and times

Temporal temporalOf(const Cell& cell, const ColumnType& column, const char* wanted) {
    std::optional<Temporal> parsed;
    if (cell.kind == Cell::Kind::Text) parsed = parseTemporal(cell.bytes);
    if (cell.kind == Cell::Kind::Temporal) parsed = *cell.temporal;
    if (!parsed) refuse(kInvalid, cell, wanted);
    // What the column's description does not announce, a caller would drop unseen.
    const bool dateColumn = column.sqlType == SQL_TYPE_DATE;
    const bool timeColumn = column.sqlType == SQL_TYPE_TIME;
    if (dateColumn && (parsed->shape == TemporalShape::Time || parsed->value.hasTimeOfDay())) {
        refuse(kInvalid, cell, "a date");
    }
    if (timeColumn && parsed->shape != TemporalShape::Time) refuse(kInvalid, cell, "a time of day");
    if (column.sqlType == SQL_TYPE_TIMESTAMP && parsed->shape == TemporalShape::Time) {
        refuse(kInvalid, cell, "a timestamp");
    }
    if ((timeColumn || column.sqlType == SQL_TYPE_TIMESTAMP) && column.scale == 0 &&
        parsed->value.nanosecond != 0) {
        refuse(kInvalid, cell, "free of a fraction, as the column is declared");
    }
    return *parsed;
}

template <class T>
T narrow(int value) noexcept {
    return static_cast<T>(value);
}

Delivery toDate(const Cell& cell, const ColumnType& column, const Target& target) {
    const Temporal parsed = temporalOf(cell, column, "a date");
    if (parsed.shape == TemporalShape::Time || parsed.value.hasTimeOfDay()) {
        refuse(kInvalid, cell, "a date");
    }
    const DateTime& value = parsed.value;
    return store(SQL_DATE_STRUCT{narrow<SQLSMALLINT>(value.year), narrow<SQLUSMALLINT>(value.month),
                                 narrow<SQLUSMALLINT>(value.day)},
                 target);
}

Delivery toTime(const Cell& cell, const ColumnType& column, const Target& target) {
    const Temporal parsed = temporalOf(cell, column, "a time of day");
    if (parsed.shape != TemporalShape::Time || parsed.value.nanosecond != 0) {
        refuse(kInvalid, cell, "a time of day in whole seconds");
    }
    const DateTime& value = parsed.value;
    return store(
        SQL_TIME_STRUCT{narrow<SQLUSMALLINT>(value.hour), narrow<SQLUSMALLINT>(value.minute),
                        narrow<SQLUSMALLINT>(value.second)},
        target);
}

SQL_TIMESTAMP_STRUCT stampOf(const DateTime& value) noexcept {
    return {narrow<SQLSMALLINT>(value.year),
            narrow<SQLUSMALLINT>(value.month),
            narrow<SQLUSMALLINT>(value.day),
            narrow<SQLUSMALLINT>(value.hour),
            narrow<SQLUSMALLINT>(value.minute),
            narrow<SQLUSMALLINT>(value.second),
            value.nanosecond};
}

Delivery toTimestamp(const Cell& cell, const ColumnType& column, const Target& target) {
    Temporal parsed = temporalOf(cell, column, "a date or time");
    DateTime& value = parsed.value;
    if (parsed.shape == TemporalShape::Time) {
        value.year = kTimeYear;
        value.month = kTimeMonth;
        value.day = kTimeDay;
    }
    return store(stampOf(value), target);
}

// ---- cells as what they are

constexpr size_t kTagSize = offsetof(VordaCell, bytes);

void storeTag(CellKind kind, const Target& target) noexcept {
    const std::int32_t tag[] = {static_cast<std::int32_t>(kind), 0};
    static_assert(sizeof tag == kTagSize);
    std::memcpy(target.buffer, tag, sizeof tag);
}

Target behindTag(const Target& target) noexcept {
    return {static_cast<char*>(target.buffer) + kTagSize,
            target.capacity - static_cast<SQLLEN>(kTagSize), target.indicator, target.partOffset};
}

template <class T>
Delivery storeTagged(CellKind kind, const T& value, const Target& target) {
    storeTag(kind, target);
    return store(value, behindTag(target));
}

Delivery storeTaggedBytes(CellKind kind, std::string_view value, const Target& target) {
    storeTag(kind, target);
    return storeBytes(value, behindTag(target), false);
}

Delivery storeTaggedTemporal(CellKind kind, const Temporal& value, const Target& target) {
    return storeTagged(kind, stampOf(value.value), target);
}

/// For the columns of types that hold any value.
Delivery toTagged(const Cell& cell, const ColumnType&, const Target& target) {
    switch (cell.kind) {
        case Cell::Kind::Integer:
            return storeTagged(CellKind::Integer, cell.integer, target);
        case Cell::Kind::Real:
            return storeTagged(CellKind::Real, cell.real, target);
        case Cell::Kind::Text:
            return storeTaggedBytes(CellKind::Text, cell.bytes, target);
        case Cell::Kind::Binary:
            return storeTaggedBytes(CellKind::Blob, cell.bytes, target);
        case Cell::Kind::Temporal: {
            constexpr CellKind kKinds[] = {CellKind::Date, CellKind::Time, CellKind::Timestamp};
            return storeTaggedTemporal(kKinds[static_cast<size_t>(cell.temporal->shape)],
                                       *cell.temporal, target);
        }
        default:
            return deliverNull(target);
    }
}

/// For the columns of the others.
Delivery toTaggedOfType(const Cell& cell, const ColumnType& column, const Target& target) {
    switch (column.sqlType) {
        case SQL_DECIMAL:
            return storeTaggedBytes(CellKind::Decimal, decimalOf(cell), target);
        case SQL_TYPE_DATE:
            return storeTaggedTemporal(CellKind::Date, temporalOf(cell, column, "a date"), target);
        case SQL_TYPE_TIME:
            return storeTaggedTemporal(CellKind::Time, temporalOf(cell, column, "a time of day"),
                                       target);
        case SQL_TYPE_TIMESTAMP:
            return storeTaggedTemporal(CellKind::Timestamp, temporalOf(cell, column, "a timestamp"),
                                       target);
        default: {
            const std::int64_t value = integerOf(cell, column);
            if (value != 0 && value != 1) refuse(kInvalid, cell, "0 or 1");
            return storeTagged(CellKind::Boolean, value, target);
        }
    }
}

bool isChecked(SQLSMALLINT sqlType) noexcept {
    constexpr SQLSMALLINT kChecked[] = {SQL_BIT, SQL_DECIMAL, SQL_TYPE_DATE, SQL_TYPE_TIME,
                                        SQL_TYPE_TIMESTAMP};
    return std::find(std::begin(kChecked), std::end(kChecked), sqlType) != std::end(kChecked);
}

struct Conversion {
    SQLSMALLINT cType;
    Converter converter;
    size_t size = 0;  ///< bytes of a value; 0 where the buffer's length counts
};

constexpr Conversion kConversions[] = {
    {kCellCType, toTagged},
    {SQL_C_WCHAR, toText},
    {SQL_C_CHAR, toText},
    {SQL_C_BINARY, toBinary},
    {SQL_C_SBIGINT, toInteger<SQLBIGINT>, sizeof(SQLBIGINT)},
    {SQL_C_UBIGINT, toInteger<SQLUBIGINT>, sizeof(SQLUBIGINT)},
    {SQL_C_LONG, toInteger<SQLINTEGER>, sizeof(SQLINTEGER)},
    {SQL_C_SLONG, toInteger<SQLINTEGER>, sizeof(SQLINTEGER)},
    {SQL_C_ULONG, toInteger<SQLUINTEGER>, sizeof(SQLUINTEGER)},
    {SQL_C_SHORT, toInteger<SQLSMALLINT>, sizeof(SQLSMALLINT)},
    {SQL_C_SSHORT, toInteger<SQLSMALLINT>, sizeof(SQLSMALLINT)},
    {SQL_C_USHORT, toInteger<SQLUSMALLINT>, sizeof(SQLUSMALLINT)},
    // The standard leaves the sign of the plain form open; bytes from 0 to 255 here, both ways.
    {SQL_C_TINYINT, toInteger<SQLCHAR>, sizeof(SQLCHAR)},
    {SQL_C_STINYINT, toInteger<SQLSCHAR>, sizeof(SQLSCHAR)},
    {SQL_C_UTINYINT, toInteger<SQLCHAR>, sizeof(SQLCHAR)},
    {SQL_C_BIT, toBit, sizeof(SQLCHAR)},
    {SQL_C_DOUBLE, toDouble, sizeof(SQLDOUBLE)},
    {SQL_C_FLOAT, toFloat, sizeof(SQLREAL)},
    {SQL_C_DATE, toDate, sizeof(SQL_DATE_STRUCT)},
    {SQL_C_TYPE_DATE, toDate, sizeof(SQL_DATE_STRUCT)},
    {SQL_C_TIME, toTime, sizeof(SQL_TIME_STRUCT)},
    {SQL_C_TYPE_TIME, toTime, sizeof(SQL_TIME_STRUCT)},
    {SQL_C_TIMESTAMP, toTimestamp, sizeof(SQL_TIMESTAMP_STRUCT)},
    {SQL_C_TYPE_TIMESTAMP, toTimestamp, sizeof(SQL_TIMESTAMP_STRUCT)},
};

const Conversion* conversionTo(SQLSMALLINT cType) noexcept {
    const auto found = std::find_if(std::begin(kConversions), std::end(kConversions),
                                    [cType](const Conversion& c) { return c.cType == cType; });
    return found == std::end(kConversions) ? nullptr : found;
}

}  // namespace

bool isDeliverable(SQLSMALLINT cType) noexcept {
    return cType == SQL_C_DEFAULT || conversionTo(cType) != nullptr;
}

size_t elementSize(SQLSMALLINT cType, const ColumnType& column) noexcept {
    return conversionTo(cType == SQL_C_DEFAULT ? traitsOf(column.sqlType).cType : cType)->size;
}

Converter converterFor(SQLSMALLINT cType, const ColumnType& column) noexcept {
    if (cType == SQL_C_DEFAULT) cType = traitsOf(column.sqlType).cType;
    const Conversion* conversion = conversionTo(cType);
    if (!conversion) return nullptr;
    if (conversion->converter == toTagged && isChecked(column.sqlType)) return toTaggedOfType;
    if (conversion->converter == toText && column.sqlType == SQL_DECIMAL) return toDecimalText;
    if (conversion->converter == toText && column.sqlType == SQL_VARBINARY) return toHexText;
    return conversion->converter;
}

Delivery deliverNull(const Target& target) {
    if (target.partOffset) {
        if (*target.partOffset != 0) return Delivery::Nothing;
        *target.partOffset = 1;
    }
    if (target.tagged)
        storeTag(CellKind::Null, target);
    else if (!target.indicator)
        throw ConversionError("22002", "the value is NULL and there is no indicator for it");
    if (target.indicator) *target.indicator = SQL_NULL_DATA;
    return Delivery::Whole;
}

}  // namespace embedded
