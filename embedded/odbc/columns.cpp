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

std::string typeNameOf(const OdbcStatement& statement, SQLUSMALLINT number) {
    SQLWCHAR text[kNameCapacity] = {};
    // The manager may take the bytes for characters.
    const SQLRETURN result = statement.manager().SQLColAttributeW(
        statement.get(), number, SQL_DESC_TYPE_NAME, text, kNameCapacity, nullptr, nullptr);
    return SQL_SUCCEEDED(result) ? upToTerminator(text) : std::string();
}

OdbcColumn describe(const OdbcStatement& statement, SQLUSMALLINT number) {
    SQLSMALLINT driverType = 0;
    SQLULEN size = 0;
    SQLSMALLINT digits = 0;
    OdbcColumn result;
    const DriverManager& manager = statement.manager();
    // psqlodbc fails if it is asked for nothing of the name.
    SQLSMALLINT nameLength = 0;
    const auto describeBy = [&](auto function) {
        statement.handle().check(function(statement.get(), number, nullptr, 0, &nameLength,
                                          &driverType, &size, &digits, &result.column.nullable));
    };
    if (statement.session().quirks().narrow) {
        describeBy(manager.SQLDescribeCol);
    } else {
        describeBy(manager.SQLDescribeColW);
    }
    SQLLEN isUnsigned = SQL_FALSE;
    manager.SQLColAttributeW(statement.get(), number, SQL_DESC_UNSIGNED, nullptr, 0, nullptr,
                             &isUnsigned);
    TypeEntry entry = entryOf(driverType, isUnsigned == SQL_TRUE);
    // psqlodbc calls it a float, which does not have its digits.
    if (entry.form == Form::Real && sameWord(typeNameOf(statement, number), "money")) entry = kText;
    result.form = formFor(entry.form, statement.session().quirks());
    result.column.type = typeOf(entry, size, digits, statement.session().quirks());
    return result;
}

std::string nameOf(const OdbcStatement& statement, SQLUSMALLINT number) {
    const DriverManager& manager = statement.manager();
    const auto readInto = [&](auto function, auto* text) {
        statement.handle().check(function(statement.get(), number, text, kNameCapacity, nullptr,
                                          nullptr, nullptr, nullptr, nullptr));
    };
    if (statement.session().quirks().narrow) {
        SQLCHAR name[kNameCapacity] = {};
        readInto(manager.SQLDescribeCol, name);
        return reinterpret_cast<const char*>(name);
    }
    SQLWCHAR name[kNameCapacity] = {};
    readInto(manager.SQLDescribeColW, name);
    return upToTerminator(name);
}

}  // namespace

std::vector<OdbcColumn> describeColumns(const OdbcStatement& statement) {
    SQLSMALLINT count = 0;
    statement.handle().check(statement.manager().SQLNumResultCols(statement.get(), &count));
    std::vector<OdbcColumn> columns;
    columns.reserve(static_cast<size_t>(std::max<SQLSMALLINT>(count, 0)));
    for (int number = 1; number <= count; ++number) {
        columns.push_back(describe(statement, static_cast<SQLUSMALLINT>(number)));
    }
    return columns;
}

void nameColumns(const OdbcStatement& statement, std::vector<Column>& columns) {
    SQLUSMALLINT number = 0;
    for (Column& column : columns) {
        column.name = nameOf(statement, ++number);
        column.typeName = typeNameOf(statement, number);
    }
}

std::vector<Column> describeAndName(const OdbcStatement& statement) {
    std::vector<Column> columns;
    for (OdbcColumn& described : describeColumns(statement))
        columns.push_back(std::move(described.column));
    nameColumns(statement, columns);
    return columns;
}

}  // namespace embedded
