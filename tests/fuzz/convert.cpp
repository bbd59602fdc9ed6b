// Types, numbers, dates and texts of the embedded runtime, and every value in every C type.
#include "values/convert.h"

#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <regex>

#include "fuzz.h"
#include "values/numbers.h"
#include "values/temporal.h"
#include "values/text.h"

namespace {

using namespace embedded;
using fuzz::require;
using fuzz::requireSame;

void checkType(std::string_view declaration) {
    const ColumnType type = typeOfDeclaration(declaration);
    require(traitsOf(type.sqlType).sqlType == type.sqlType, "the type is one of ours");
    require(type.scale >= 0 && type.scale <= 1000, "the scale");
    const bool timed = type.sqlType == SQL_TYPE_TIME || type.sqlType == SQL_TYPE_TIMESTAMP;
    require(!timed || type.scale <= 9, "nine digits of a second");
    std::string swapped(declaration);
    for (char& c : swapped) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (letter) c = static_cast<char>(c ^ 32);
    }
    const ColumnType same = typeOfDeclaration(" " + swapped + "\t");
    require(same.sqlType == type.sqlType && same.size == type.size && same.scale == type.scale,
            "neither case nor blanks change a type");
}

// A decimal without zeros at its ends, and the power of ten of its last digit.
struct Decimal {
    bool valid = false;
    bool negative = false;
    std::string digits;
    long power = 0;
    bool operator==(const Decimal&) const = default;
};
Decimal decimalOf(const std::string& text) {
    static const std::regex kDecimal(R"(([-+]?)(\d*)\.?(\d*)(?:[eE]([-+]?)(\d+))?)");
    std::smatch part;
    if (!std::regex_match(text, part, kDecimal)) return {};
    std::string digits = part[2].str() + part[3].str();
    const double power = std::strtod(part[5].str().c_str(), nullptr);
    if (digits.empty() || digits.size() > 1000 || power > 1000) return {};
    long exponent = static_cast<long>(part[4] == "-" ? -power : power) - part[3].length();
    while (digits.ends_with('0')) {
        digits.pop_back();
        ++exponent;
    }
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    return {true, part[1] == "-", digits, digits.empty() ? 0 : exponent};
}

void checkDecimal(std::string_view text) {
    const Decimal expected = decimalOf(std::string(trimmed(text)));
    const auto seen = plainDecimal(text);
    require(seen.has_value() == expected.valid, "what is a decimal number");
    if (!seen) return;
    require(decimalOf(*seen) == expected, "a decimal keeps its value");
    std::string_view digits = *seen;
    if (digits.starts_with('-')) digits.remove_prefix(1);
    require(digits.find_first_not_of("0123456789.") == std::string_view::npos &&
                digits.front() != '.' && digits.back() != '.' &&
                (digits.front() != '0' || digits.size() == 1 || digits[1] == '.'),
            "a decimal in plain digits");
}

void checkNumber(double value, std::int64_t integer) {
    NumberBuffer buffer;
    requireSame(formatInteger(integer, buffer), std::to_string(integer), "an integer");
    if (std::isnan(value)) return;  // SQLite stores none
    const std::string text(formatDouble(value, buffer));
    require(std::strtod(text.c_str(), nullptr) == value, "a double reads back");
    require(!std::isfinite(value) || text.find_first_of(".e") != std::string::npos, "as a double");
    const auto plain = plainDecimal(value);
    require(plain.has_value() == std::isfinite(value), "a finite double has digits");
    if (plain) require(std::strtod(plain->c_str(), nullptr) == value, "its digits read back");
    std::int64_t whole = 0;
    const bool exact = exactInteger(value, whole);
    const auto wide = static_cast<long double>(value);
    require(exact == (wide >= -0x1p63L && wide < 0x1p63L && std::rint(wide) == wide),
            "is it whole");
    if (exact) require(static_cast<long double>(whole) == wide, "the whole number");
}

std::optional<Temporal> temporalOf(const std::string& text) {
    static const std::regex kShape(R"((?:(\d{4})-(\d\d)-(\d\d))?([ T])?)"
                                   R"((?:(\d\d):([0-5]\d)(?::([0-5]\d)(?:\.(\d{1,9})0*)?)?)?)");
    std::smatch part;
    if (text.empty() || !std::regex_match(text, part, kShape)) return std::nullopt;
    const bool dated = part[1].matched;
    const bool timed = part[5].matched;
    if (part[4].matched != (dated && timed)) return std::nullopt;
    const auto number = [&](std::size_t i) { return part[i].matched ? std::stoi(part[i]) : 0; };
    const std::string fraction = (part[8].str() + "000000000").substr(0, 9);
    const DateTime value{number(1),
                         number(2),
                         number(3),
                         number(5),
                         number(6),
                         number(7),
                         static_cast<std::uint32_t>(std::stoi(fraction))};
    const std::chrono::year_month_day date(std::chrono::year(value.year),
                                           std::chrono::month(static_cast<unsigned>(value.month)),
                                           std::chrono::day(static_cast<unsigned>(value.day)));
    if (value.hour > 23 || (dated && (!date.ok() || value.year == 0))) return std::nullopt;
    return Temporal{!timed  ? TemporalShape::Date
                    : dated ? TemporalShape::Both
                            : TemporalShape::Time,
                    value};
}

void checkTemporal(std::string_view text) {
    const auto expected = temporalOf(std::string(text));
    const auto parsed = parseTemporal(text);
    require(parsed.has_value() == expected.has_value(), "what is a date or time");
    if (!parsed) return;
    const DateTime& value = expected->value;
    require(parsed->shape == expected->shape, "which of them");
    char whole[48];
    std::snprintf(whole, sizeof whole, "%04d-%02d-%02d %02d:%02d:%02d.%09u", value.year,
                  value.month, value.day, value.hour, value.minute, value.second, value.nanosecond);
    // No fraction when it is zero, six digits when those are enough.
    const std::size_t length = value.nanosecond == 0 ? 19 : value.nanosecond % 1000 == 0 ? 26 : 29;
    requireSame(formatDateTime(parsed->value), {whole, length}, "a date and time reads back");
}

std::size_t longestWhole(std::string_view text, std::size_t limit) {
    std::size_t end = 0;
    char32_t c = 0;
    while (end < text.size()) {
        const std::size_t length = fuzz::strictCharacter(text.substr(end), c);
        if (length == 0 || end + length > limit) break;
        end += length;
    }
    return end;
}

/// What a converter stored in a buffer of exactly the room it was told of.
struct Delivered {
    std::vector<char> bytes;
    SQLLEN indicator = -99;
    Delivery delivery = Delivery::Nothing;
};
Delivered deliver(Converter converter, const Cell& cell, const ColumnType& column,
                  std::size_t capacity, std::size_t* offset) {
    Delivered result;
    result.bytes.assign(capacity, '?');
    const Target target{result.bytes.data(), static_cast<SQLLEN>(capacity), &result.indicator,
                        offset};
    result.delivery = converter(cell, column, target);
    return result;
}

void checkText(Converter converter, const Cell& cell, const ColumnType& column,
               std::size_t capacity, bool isText) {
    const Delivered whole = deliver(converter, cell, column, 2 * cell.bytes.size() + 2000, nullptr);
    require(whole.delivery == Delivery::Whole && whole.indicator >= 0, "there is room for all");
    const std::string_view value(whole.bytes.data(), static_cast<std::size_t>(whole.indicator));
    if (cell.kind == Cell::Kind::Text && column.sqlType != SQL_DECIMAL) {
        requireSame(value, cell.bytes, "a text arrives as it is");
    }
    const Delivered part = deliver(converter, cell, column, capacity, nullptr);
    require(part.indicator == whole.indicator, "the full length is told");
    const std::size_t room = isText ? std::max<std::size_t>(capacity, 1) - 1 : capacity;
    const bool fits = value.size() <= room && (!isText || capacity > 0);
    require((part.delivery == Delivery::Cut) == !fits, "cut when it does not fit");
    std::size_t kept = std::min(value.size(), room);
    if (isText && fuzz::isStrict(value)) kept = longestWhole(value, room);
    if (isText && capacity > 0) {
        const auto end = std::find(part.bytes.begin(), part.bytes.end(), '\0');
        require(end != part.bytes.end(), "a text is terminated");
        if (value.find('\0') != std::string_view::npos || !fuzz::isStrict(value)) return;
        require(static_cast<std::size_t>(end - part.bytes.begin()) == kept, "cut at a character");
    }
    requireSame({part.bytes.data(), kept}, value.substr(0, kept), "the bytes kept");

    // In parts nothing is lost, and nothing goes on for ever.
    std::size_t offset = 0;
    std::string joined;
    if (room == 0) return;
    for (std::size_t calls = 0;; ++calls) {
        const Delivered next = deliver(converter, cell, column, capacity, &offset);
        if (next.delivery == Delivery::Nothing) break;
        require(calls <= value.size(), "reading in parts ends");
        require(next.indicator == static_cast<SQLLEN>(value.size() - joined.size()),
                "what is left");
        const auto left = static_cast<std::size_t>(next.indicator);
        std::size_t length = std::min(left, room);
        if (isText && next.delivery == Delivery::Cut) {
            length = std::strlen(next.bytes.data());
            // A NUL within the text hides how much was stored.
            if (value.find('\0') != std::string_view::npos) return;
        }
        joined.append(next.bytes.data(), length);
    }
    requireSame(joined, value, "the parts together");
}

template <class T>
void checkInteger(Converter converter, const Cell& cell, const ColumnType& column, long double low,
                  long double high) {
    long double value = 0;
    bool whole = true;
    if (cell.kind == Cell::Kind::Integer) value = static_cast<long double>(cell.integer);
    if (cell.kind == Cell::Kind::Real) value = static_cast<long double>(cell.real);
    if (cell.kind == Cell::Kind::Text) {
        const std::string text(trimmed(cell.bytes));
        const std::size_t sign = text.starts_with('-') ? 1 : 0;
        whole =
            text.size() > sign && text.find_first_not_of("0123456789", sign) == std::string::npos;
        if (whole) value = std::strtold(text.c_str(), nullptr);
    }
    const bool expected = cell.kind != Cell::Kind::Binary && whole && value >= low &&
                          value <= high && value >= -0x1p63L && value < 0x1p63L &&
                          std::rint(value) == value;
    try {
        const Delivered seen = deliver(converter, cell, column, sizeof(T), nullptr);
        require(expected, "the value is no such integer");
        T stored;
        std::memcpy(&stored, seen.bytes.data(), sizeof stored);
        require(static_cast<long double>(stored) == value, "the integer's value");
        require(seen.indicator == sizeof stored, "the integer's length");
    } catch (const ConversionError&) {
        require(!expected, "the integer fits");
    }
}

/// Either refuses the value or stores as many bytes as it tells.
void checkFixed(SQLSMALLINT cType, std::size_t length, const Cell& cell, const ColumnType& column) {
    try {
        const Delivered seen = deliver(converterFor(cType, column), cell, column, length, nullptr);
        require(seen.indicator == static_cast<SQLLEN>(length), "the length of the value");
        if (cType != SQL_C_DOUBLE) return;
        double stored = 0;
        std::memcpy(&stored, seen.bytes.data(), sizeof stored);
        double value =
            cell.kind == Cell::Kind::Real ? cell.real : static_cast<double>(cell.integer);
        if (cell.kind == Cell::Kind::Text) {
            value = std::strtod(std::string(trimmed(cell.bytes)).c_str(), nullptr);
        }
        require(stored == value || std::isnan(value), "the value of the double");
    } catch (const ConversionError& error) {
        require(cType != SQL_C_DOUBLE || cell.kind != Cell::Kind::Real, error.what());
    }
}

template <class T>
void checkIntegerType(SQLSMALLINT cType, const Cell& cell, const ColumnType& column) {
    using Limits = std::numeric_limits<T>;
    checkInteger<T>(converterFor(cType, column), cell, column, Limits::min(), Limits::max());
}

void checkConversions(const Cell& cell, const ColumnType& column, std::size_t capacity) {
    for (const int wanted : {SQL_C_WCHAR, SQL_C_CHAR, SQL_C_BINARY, SQL_C_DEFAULT}) {
        const auto cType = static_cast<SQLSMALLINT>(wanted);
        const Converter converter = converterFor(cType, column);
        const bool isText = converter != converterFor(SQL_C_BINARY, column);
        const SQLSMALLINT meant = cType == SQL_C_DEFAULT ? traitsOf(column.sqlType).cType : cType;
        if (meant != SQL_C_WCHAR && meant != SQL_C_CHAR && meant != SQL_C_BINARY) continue;
        try {
            checkText(converter, cell, column, capacity, isText);
        } catch (const ConversionError& error) {
            require(cell.kind != Cell::Kind::Text || column.sqlType == SQL_DECIMAL, error.what());
        }
    }
    checkIntegerType<SQLBIGINT>(SQL_C_SBIGINT, cell, column);
    checkIntegerType<SQLUBIGINT>(SQL_C_UBIGINT, cell, column);
    checkIntegerType<SQLINTEGER>(SQL_C_SLONG, cell, column);
    checkIntegerType<SQLUINTEGER>(SQL_C_ULONG, cell, column);
    checkIntegerType<SQLSMALLINT>(SQL_C_SSHORT, cell, column);
    checkIntegerType<SQLUSMALLINT>(SQL_C_USHORT, cell, column);
    checkIntegerType<SQLSCHAR>(SQL_C_STINYINT, cell, column);
    checkIntegerType<SQLCHAR>(SQL_C_UTINYINT, cell, column);
    checkInteger<SQLCHAR>(converterFor(SQL_C_BIT, column), cell, column, 0, 1);
    checkFixed(SQL_C_DOUBLE, sizeof(double), cell, column);
    checkFixed(SQL_C_FLOAT, sizeof(float), cell, column);
    checkFixed(SQL_C_TYPE_DATE, sizeof(SQL_DATE_STRUCT), cell, column);
    checkFixed(SQL_C_TYPE_TIME, sizeof(SQL_TIME_STRUCT), cell, column);
    checkFixed(SQL_C_TYPE_TIMESTAMP, sizeof(SQL_TIMESTAMP_STRUCT), cell, column);
}

}  // namespace

// A line with the declaration of a column, a byte for the capacity, and the value, which is taken
// as a text, a blob, an integer and a double in turn.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string_view declaration = input.line();
    const std::size_t capacity = input.byte() % 48U;
    const std::string_view value = input.rest();
    const auto integer =
        fuzz::Input(reinterpret_cast<const std::uint8_t*>(value.data()), value.size())
            .number<std::int64_t>();
    double real = 0;
    std::memcpy(&real, &integer, sizeof real);
    if (std::isnan(real)) real = 0;
    checkType(declaration);
    checkDecimal(value);
    checkTemporal(value);
    checkNumber(real, integer);

    const ColumnType column = typeOfDeclaration(declaration);
    const std::vector<char> exact(value.begin(), value.end());
    const std::string_view bytes(exact.data(), exact.size());
    for (const Cell& cell :
         {Cell{Cell::Kind::Text, 0, 0, bytes}, Cell{Cell::Kind::Binary, 0, 0, bytes},
          Cell{Cell::Kind::Integer, integer, 0, {}}, Cell{Cell::Kind::Real, 0, real, {}},
          Cell{Cell::Kind::Integer, integer >> capacity, 0, {}},
          Cell{Cell::Kind::Real, 0, std::trunc(real), {}}}) {
        checkConversions(cell, column, capacity);
    }
    return 0;
}
