#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string_view>

namespace embedded {

/// The SQL type under which a column is described and delivered.
struct ColumnType {
    SQLSMALLINT sqlType = SQL_WVARCHAR;
    SQLULEN size = 0;  ///< declared length or precision, or that of a fixed type; 0 when unknown
    SQLSMALLINT scale = 0;  ///< digits after the point or of the fraction of a second
    bool assumed = false;   ///< from the first row: the values of others may be of any type

    bool operator==(const ColumnType&) const = default;
};

/// What is the same for all columns of one SQL type.
struct TypeTraits {
    SQLSMALLINT sqlType;
    SQLSMALLINT verboseType;  ///< SQL_DATETIME for the date and time types, else `sqlType`
    SQLSMALLINT subcode;      ///< SQL_CODE_… of the date and time types, else 0
    SQLSMALLINT cType;        ///< what SQL_C_DEFAULT stands for
    const char* name;
    SQLULEN size;       ///< fixed precision, or 0 where each column has its own
    SQLLEN octets;      ///< bytes of the default C type, or 0 where each column has its own
    SQLLEN display;     ///< characters to show any value, or 0 where each column has its own
    SQLSMALLINT radix;  ///< 10 or 2 for numbers, else 0
    const char* quote;  ///< how a literal starts and ends
};

/// The traits of a type that `ColumnType` can hold.
const TypeTraits& traitsOf(SQLSMALLINT sqlType) noexcept;

/// A type without a length, or the one fixed length it has.
ColumnType plain(SQLSMALLINT sqlType) noexcept;

/// Whether `declaration`, the type text of a column, says anything about its type.
bool isTyped(std::string_view declaration) noexcept;

/// The type of a column declared as `declaration`: SQLite's affinity rules, refined by the names
/// that people use for booleans, decimals, dates and times.
ColumnType typeOfDeclaration(std::string_view declaration);

}  // namespace embedded
