#include "values/columntype.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "values/text.h"

namespace embedded {
namespace {

constexpr SQLSMALLINT kMaxFraction = 9;

// clang-format off
constexpr TypeTraits kTraits[] = {
    {SQL_WVARCHAR,       SQL_WVARCHAR,  0, SQL_C_WCHAR,          "VARCHAR",   0,  0,  0,  0,  "'"},
    {SQL_BIGINT,         SQL_BIGINT,    0, SQL_C_SBIGINT,        "BIGINT",    19, 8,  20, 10, ""},
    {SQL_INTEGER,        SQL_INTEGER,   0, SQL_C_LONG,           "INTEGER",   10, 4,  11, 10, ""},
    {SQL_SMALLINT,       SQL_SMALLINT,  0, SQL_C_SHORT,          "SMALLINT",  5,  2,  6,  10, ""},
    {SQL_BIT,            SQL_BIT,       0, SQL_C_BIT,            "BOOLEAN",   1,  1,  1,  0,  ""},
    {SQL_DOUBLE,         SQL_DOUBLE,    0, SQL_C_DOUBLE,         "DOUBLE",    15, 8,  24, 10, ""},
    {SQL_DECIMAL,        SQL_DECIMAL,   0, SQL_C_CHAR,           "DECIMAL",   0,  0,  0,  10, ""},
    {SQL_VARBINARY,      SQL_VARBINARY, 0, SQL_C_BINARY,         "VARBINARY", 0,  0,  0,  0,  "'"},
    {SQL_TYPE_DATE,      SQL_DATETIME,  SQL_CODE_DATE, SQL_C_TYPE_DATE, "DATE", 10, 6, 10, 0, "'"},
    {SQL_TYPE_TIME,      SQL_DATETIME,  SQL_CODE_TIME, SQL_C_TYPE_TIME, "TIME", 0,  6, 18, 0, "'"},
    {SQL_TYPE_TIMESTAMP, SQL_DATETIME,  SQL_CODE_TIMESTAMP, SQL_C_TYPE_TIMESTAMP, "TIMESTAMP",
                                                                              0,  16, 29, 0,  "'"},
};
// clang-format on

/// A declaration taken apart: "NUMERIC ( 10 , 2 )" is the name NUMERIC and the numbers 10 and 2.
struct Declaration {
    std::string name;
    int numbers[2] = {-1, -1};
};

int takeNumber(std::string_view& text) noexcept {
    int value = -1;
    text = trimmed(text);
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    text.remove_prefix(static_cast<size_t>(parsed.ptr - text.data()));
    return parsed.ec == std::errc{} && value >= 0 ? value : -1;
}

Declaration takeApart(std::string_view text) {
    Declaration result;
    const size_t open = text.find('(');
    result.name = upper(trimmed(text.substr(0, open)));
    if (open == std::string_view::npos) return result;
    const size_t close = text.find(')', open);
    // "TIMESTAMP(3) WITH TIME ZONE" names another type than "TIMESTAMP(3)".
    if (close != std::string_view::npos) {
        const std::string_view suffix = trimmed(text.substr(close + 1));
        if (!suffix.empty()) result.name += " " + upper(suffix);
    }
    std::string_view inside = text.substr(
        open + 1, close == std::string_view::npos ? std::string_view::npos : close - open - 1);
    result.numbers[0] = takeNumber(inside);
    const size_t comma = inside.find(',');
    if (comma != std::string_view::npos) {
        inside.remove_prefix(comma + 1);
        result.numbers[1] = takeNumber(inside);
    }
    return result;
}

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) noexcept {
    return std::find(names.begin(), names.end(), name) != names.end();
}

ColumnType sized(SQLSMALLINT sqlType, int size) noexcept {
    return {sqlType, static_cast<SQLULEN>(std::max(size, 0)), 0};
}

/// A time or timestamp: `whole` characters without a fraction. Fractions of nine digits are stored
/// and read whatever the declaration says, so an undeclared scale is nine.
ColumnType withFraction(SQLSMALLINT sqlType, SQLULEN whole, int declared) noexcept {
    const auto scale = declared < 0
                           ? kMaxFraction
                           : static_cast<SQLSMALLINT>(std::min<int>(declared, kMaxFraction));
    return {sqlType, whole + (scale > 0 ? 1U + static_cast<SQLULEN>(scale) : 0U), scale};
}

ColumnType decimal(const Declaration& declaration) noexcept {
    ColumnType type = sized(SQL_DECIMAL, declaration.numbers[0]);
    type.scale = static_cast<SQLSMALLINT>(std::clamp(declaration.numbers[1], 0, 1000));
    return type;
}

}  // namespace

const TypeTraits& traitsOf(SQLSMALLINT sqlType) noexcept {
    const auto found =
        std::find_if(std::begin(kTraits), std::end(kTraits),
                     [sqlType](const TypeTraits& traits) { return traits.sqlType == sqlType; });
    return found == std::end(kTraits) ? kTraits[0] : *found;
}

bool isTyped(std::string_view declaration) noexcept {
    return !trimmed(declaration).empty();
}

ColumnType plain(SQLSMALLINT sqlType) noexcept {
    return {sqlType, traitsOf(sqlType).size, 0};
}

ColumnType typeOfDeclaration(std::string_view text) {
    // What most columns are needs no taking apart.
    if (sameWord(text, "INTEGER")) return plain(SQL_BIGINT);
    if (sameWord(text, "TEXT")) return plain(SQL_WVARCHAR);
    const Declaration declaration = takeApart(text);
    const std::string& name = declaration.name;
    const auto contains = [&name](std::string_view part) {
        return name.find(part) != std::string::npos;
    };

    if (isOneOf(name, {"BOOLEAN", "BOOL"})) return plain(SQL_BIT);
    if (isOneOf(name, {"DECIMAL", "NUMERIC", "DEC"})) return decimal(declaration);
    if (name == "DATE") return plain(SQL_TYPE_DATE);
    if (isOneOf(name, {"TIME", "TIME WITHOUT TIME ZONE"})) {
        return withFraction(SQL_TYPE_TIME, 8, declaration.numbers[0]);
    }
    if (isOneOf(name, {"TIMESTAMP", "DATETIME", "TIMESTAMP WITHOUT TIME ZONE"})) {
        return withFraction(SQL_TYPE_TIMESTAMP, 19, declaration.numbers[0]);
    }
    // From here on SQLite's own rules, in SQLite's order.
    if (contains("INT")) return plain(SQL_BIGINT);
    if (contains("CHAR") || contains("CLOB") || contains("TEXT")) {
        return sized(SQL_WVARCHAR, declaration.numbers[0]);
    }
    if (contains("BLOB") || isOneOf(name, {"BINARY", "VARBINARY", "BINARY VARYING"})) {
        return sized(SQL_VARBINARY, declaration.numbers[0]);
    }
    if (contains("REAL") || contains("FLOA") || contains("DOUB")) return plain(SQL_DOUBLE);
    return plain(SQL_WVARCHAR);
}

}  // namespace embedded
