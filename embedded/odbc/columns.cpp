#include "odbc/columns.h"

#include <algorithm>
#include <iterator>
#include <string>

#include "odbc/utf16.h"
#include "values/text.h"

namespace embedded {
namespace {

/// A driver's type: the one it is described as, and how it is read. All that is not listed, GUIDs
/// and intervals included, is text.
struct TypeEntry {
    SQLSMALLINT driverType;
    SQLSMALLINT sqlType;
    Form form;
};

constexpr TypeEntry kTypes[] = {
    {SQL_BIGINT, SQL_BIGINT, Form::Integer},
    {SQL_INTEGER, SQL_INTEGER, Form::Integer},
    {SQL_SMALLINT, SQL_SMALLINT, Form::Integer},
    {SQL_TINYINT, SQL_SMALLINT, Form::Integer},
    {SQL_BIT, SQL_BIT, Form::Bit},
    {SQL_REAL, SQL_DOUBLE, Form::Real},
    {SQL_FLOAT, SQL_DOUBLE, Form::Real},
    {SQL_DOUBLE, SQL_DOUBLE, Form::Real},
    {SQL_DECIMAL, SQL_DECIMAL, Form::Ascii},
    {SQL_NUMERIC, SQL_DECIMAL, Form::Ascii},
    {SQL_BINARY, SQL_VARBINARY, Form::Binary},
    {SQL_VARBINARY, SQL_VARBINARY, Form::Binary},
    {SQL_LONGVARBINARY, SQL_VARBINARY, Form::Binary},
    {SQL_TYPE_DATE, SQL_TYPE_DATE, Form::Date},
    {SQL_TYPE_TIME, SQL_TYPE_TIME, Form::Ascii},
    {SQL_TYPE_TIMESTAMP, SQL_TYPE_TIMESTAMP, Form::Timestamp},
};

constexpr SQLSMALLINT kMaxFraction = 9;

constexpr TypeEntry kText{SQL_WVARCHAR, SQL_WVARCHAR, Form::Wide};

// The upper half of unsigned numbers fits the next larger type only.
constexpr TypeEntry kUnsigned[] = {
    {SQL_SMALLINT, SQL_INTEGER, Form::Integer},
    {SQL_INTEGER, SQL_BIGINT, Form::Integer},
    {SQL_BIGINT, SQL_DECIMAL, Form::Ascii},
};

TypeEntry entryOf(SQLSMALLINT driverType, bool isUnsigned) noexcept {
    const auto isIt = [driverType](const TypeEntry& entry) {
        return entry.driverType == driverType;
    };
    if (isUnsigned) {
        const auto larger = std::find_if(std::begin(kUnsigned), std::end(kUnsigned), isIt);
        if (larger != std::end(kUnsigned)) return *larger;
    }
    const auto found = std::find_if(std::begin(kTypes), std::end(kTypes), isIt);
    if (found != std::end(kTypes)) return *found;
    TypeEntry text = kText;
    text.driverType = driverType;
    return text;
}

/// How a value is read from this driver.
Form formFor(Form form, const DriverQuirks& quirks) noexcept {
    using AsText = DriverQuirks::AsText;
    if (form == Form::Wide) return quirks.utf8Texts ? Form::Utf8 : form;
    if (form == Form::Binary || quirks.comesAsText == AsText::None) return form;
    const bool temporal = form == Form::Date || form == Form::Timestamp;
    return temporal || quirks.comesAsText == AsText::All ? Form::Ascii : form;
}

bool isLong(SQLSMALLINT driverType) noexcept {
    return driverType == SQL_LONGVARCHAR || driverType == SQL_WLONGVARCHAR ||
           driverType == SQL_LONGVARBINARY;
}

ColumnType typeOf(const TypeEntry& entry, SQLULEN size, SQLSMALLINT digits,
                  const DriverQuirks& quirks) noexcept {
    ColumnType type = plain(entry.sqlType);
    switch (entry.sqlType) {
        case SQL_DECIMAL:
            type.size = size;
            type.scale = entry.driverType == SQL_BIGINT ? SQLSMALLINT{0} : digits;
            break;
        case SQL_WVARCHAR:
        case SQL_VARBINARY:
            type.size = isLong(entry.driverType) ? 0 : size;
            break;
        case SQL_TYPE_TIME:
        case SQL_TYPE_TIMESTAMP:
            type.size = size;
            type.scale = quirks.describesScales ? std::clamp<SQLSMALLINT>(digits, 0, kMaxFraction)
                                                : kMaxFraction;
            break;
        default:
            break;
    }
    return type;
}

constexpr SQLSMALLINT kNameCapacity = 1024;

/// Not by the length that the driver tells: some count wrong.
std::string upToTerminator(const SQLWCHAR (&text)[kNameCapacity]) {
    const auto* const end = std::find(std::begin(text), std::end(text), SQLWCHAR{0});
    return narrowText(text, static_cast<size_t>(end - text));
}

OdbcColumn describe(const OdbcStatement& statement, SQLUSMALLINT number) {
    SQLSMALLINT driverType = 0;
    SQLULEN size = 0;
    SQLSMALLINT digits = 0;
    SQLSMALLINT nullable = SQL_NULLABLE_UNKNOWN;
    const DriverManager& manager = statement.manager();
    const auto describeInto = [&](auto function, auto* text) {
        statement.handle().check(function(statement.get(), number, text, kNameCapacity, nullptr,
                                          &driverType, &size, &digits, &nullable));
    };
    OdbcColumn result;
    SQLWCHAR text[kNameCapacity] = {};
    if (statement.session().quirks().narrow) {
        SQLCHAR name[kNameCapacity] = {};
        describeInto(manager.SQLDescribeCol, name);
        result.column.name = reinterpret_cast<const char*>(name);
    } else {
        describeInto(manager.SQLDescribeColW, text);
        result.column.name = upToTerminator(text);
    }
    SQLLEN isUnsigned = SQL_FALSE;
    manager.SQLColAttributeW(statement.get(), number, SQL_DESC_UNSIGNED, nullptr, 0, nullptr,
                             &isUnsigned);
    std::fill(std::begin(text), std::end(text), SQLWCHAR{0});
    // The manager may take the bytes for characters.
    if (SQL_SUCCEEDED(manager.SQLColAttributeW(statement.get(), number, SQL_DESC_TYPE_NAME, text,
                                               kNameCapacity, nullptr, nullptr))) {
        result.column.typeName = upToTerminator(text);
    }
    TypeEntry entry = entryOf(driverType, isUnsigned == SQL_TRUE);
    // psqlodbc calls it a float, which does not have its digits.
    if (entry.form == Form::Real && sameWord(result.column.typeName, "money")) entry = kText;
    result.form = formFor(entry.form, statement.session().quirks());
    result.column.type = typeOf(entry, size, digits, statement.session().quirks());
    result.column.nullable = nullable;
    return result;
}

}  // namespace

std::vector<OdbcColumn> describeColumns(const OdbcStatement& statement) {
    SQLSMALLINT count = 0;
    statement.handle().check(statement.manager().SQLNumResultCols(statement.get(), &count));
    std::vector<OdbcColumn> columns;
    for (int number = 1; number <= count; ++number) {
        columns.push_back(describe(statement, static_cast<SQLUSMALLINT>(number)));
    }
    return columns;
}

}  // namespace embedded
