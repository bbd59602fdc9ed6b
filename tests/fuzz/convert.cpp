// Types, numbers, dates and texts of the embedded runtime, and every value in every C type.
#include "values/convert.h"

#include <sqlite3.h>

#include <cmath>
#include <cstring>
#include <utility>

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
    fuzz::tell("type", type.sqlType, type.size, type.scale);
    const bool timed = type.sqlType == SQL_TYPE_TIME || type.sqlType == SQL_TYPE_TIMESTAMP;
    require(!timed || type.scale <= 9, "nine digits of a second");
}

void checkDecimal(std::string_view text) {
    const auto seen = plainDecimal(text);
    fuzz::tell("decimal", seen.value_or("none"));
    if (!seen) return;
    const std::string number(trimmed(text));
    char* end = nullptr;
    const double value = std::strtod(number.c_str(), &end);
    require(end == number.c_str() + number.size(), "what is a decimal number");
    require(std::strtod(seen->c_str(), nullptr) == value, "a decimal keeps its value");
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
    const double back = plain ? std::strtod(plain->c_str(), nullptr) : value;
    require(back == value || std::nextafter(value, back) == back || std::isnan(value),
            "its digits read back, or as its neighbour");
    std::int64_t whole = 0;
    const bool exact = exactInteger(value, whole);
    const auto wide = static_cast<long double>(value);
    require(exact == (wide >= -0x1p63L && wide < 0x1p63L && std::rint(wide) == wide),
            "is it whole");
    if (exact) require(static_cast<long double>(whole) == wide, "the whole number");
}

/// The text of a date or time as SQLite understands it; empty for none.
std::string sqliteTime(const std::string& text) {
    static sqlite3_stmt* const statement = [] {
        sqlite3* db = nullptr;
        sqlite3_stmt* prepared = nullptr;
        sqlite3_open(":memory:", &db);
        sqlite3_prepare_v2(db, "SELECT strftime('%Y-%m-%d %H:%M:%S', ?)", -1, &prepared, nullptr);
        return prepared;
    }();
    sqlite3_bind_text(statement, 1, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    sqlite3_step(statement);
    const unsigned char* const shown = sqlite3_column_text(statement, 0);
    const std::string result = shown != nullptr ? reinterpret_cast<const char*>(shown) : "";
    sqlite3_reset(statement);
    return result;
}

void checkTemporal(std::string_view text) {
    const auto parsed = parseTemporal(text);
    fuzz::tell("temporal", parsed ? formatTemporal(*parsed) : "none");
    if (!parsed) return;
    const std::string shown = formatTemporal(*parsed);
    const auto again = parseTemporal(shown);
    require(again && again->shape == parsed->shape && formatTemporal(*again) == shown,
            "what is written reads as the same");
    std::string understood = sqliteTime(std::string(text.substr(0, text.find('.'))));
    const std::string seen = formatDateTime(parsed->value).substr(0, 19);
    // Which gives a time of day the date of 2000-01-01.
    const std::size_t from = parsed->shape == TemporalShape::Time ? 10 : 0;
    requireSame(seen.substr(from), understood.erase(0, from), "as SQLite reads it");
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
    const std::string value(whole.bytes.data(), static_cast<std::size_t>(whole.indicator));
    if (cell.kind == Cell::Kind::Text && column.sqlType != SQL_DECIMAL) {
        requireSame(value, cell.bytes, "a text arrives as it is");
    }
    const Delivered part = deliver(converter, cell, column, capacity, nullptr);
    require(part.indicator == whole.indicator, "the full length is told");
    require((part.delivery == Delivery::Truncated) == (value.size() + (isText ? 1 : 0) > capacity),
            "cut when it does not fit");
    // In parts nothing is lost, and nothing goes on for ever. A NUL hides how much was stored.
    if (capacity < 2 || (isText && value.find('\0') != std::string::npos)) return;
    const bool strict = isText && capacity >= 5 && fuzz::isStrict(value);
    std::string joined;
    for (std::size_t offset = 0;;) {
        const Delivered next = deliver(converter, cell, column, capacity, &offset);
        if (next.delivery == Delivery::Nothing) break;
        const std::size_t left = value.size() - joined.size();
        require(static_cast<std::size_t>(next.indicator) == left, "what is left");
        const std::size_t length =
            isText ? strnlen(next.bytes.data(), capacity) : std::min(left, capacity);
        require((length > 0 || left == 0) && (!isText || length < capacity), "reading ends");
        joined.append(next.bytes.data(), length);
        require(!strict || joined.size() == value.size() || (value[joined.size()] & 0xC0) != 0x80,
                "cut at a character");
    }
    requireSame(joined, value, "the parts together");
}

/// The bytes of a value, in a type whose values have one size; nothing for one that is refused.
std::optional<std::string> fixed(SQLSMALLINT cType, std::size_t length, const Cell& cell,
                                 const ColumnType& column) {
    try {
        const Delivered seen = deliver(converterFor(cType, column), cell, column, length, nullptr);
        require(seen.indicator == static_cast<SQLLEN>(length), "the length of the value");
        return std::string(seen.bytes.begin(), seen.bytes.end());
    } catch (const ConversionError&) {
        return std::nullopt;
    }
}

template <class T>
void checkInteger(SQLSMALLINT cType, const Cell& cell, const ColumnType& column) {
    const auto bytes = fixed(cType, sizeof(T), cell, column);
    T stored{};
    if (bytes) std::memcpy(&stored, bytes->data(), sizeof stored);
    if (bytes && cell.kind == Cell::Kind::Text) fuzz::tell(cType, +stored);
    if (cell.kind == Cell::Kind::Integer) {
        require(bytes.has_value() == std::in_range<T>(cell.integer), "what fits is taken");
        require(!bytes || std::cmp_equal(stored, cell.integer), "the integer's value");
    }
    if (cell.kind == Cell::Kind::Real && bytes) {
        require(static_cast<long double>(stored) == cell.real, "the double was whole");
    }
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
    checkInteger<SQLBIGINT>(SQL_C_SBIGINT, cell, column);
    checkInteger<SQLUBIGINT>(SQL_C_UBIGINT, cell, column);
    checkInteger<SQLINTEGER>(SQL_C_SLONG, cell, column);
    checkInteger<SQLUINTEGER>(SQL_C_ULONG, cell, column);
    checkInteger<SQLSMALLINT>(SQL_C_SSHORT, cell, column);
    checkInteger<SQLUSMALLINT>(SQL_C_USHORT, cell, column);
    checkInteger<SQLSCHAR>(SQL_C_STINYINT, cell, column);
    checkInteger<SQLCHAR>(SQL_C_UTINYINT, cell, column);
    for (const auto& [cType, length] : {std::pair{SQL_C_BIT, sizeof(SQLCHAR)},
                                        {SQL_C_FLOAT, sizeof(float)},
                                        {SQL_C_DOUBLE, sizeof(double)},
                                        {SQL_C_TYPE_DATE, sizeof(SQL_DATE_STRUCT)},
                                        {SQL_C_TYPE_TIME, sizeof(SQL_TIME_STRUCT)},
                                        {SQL_C_TYPE_TIMESTAMP, sizeof(SQL_TIMESTAMP_STRUCT)}}) {
        const auto bytes = fixed(static_cast<SQLSMALLINT>(cType), length, cell, column);
        if (bytes) fuzz::tell(cType, *bytes);
    }
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
