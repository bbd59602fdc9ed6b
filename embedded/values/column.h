#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string>

#include "values/columntype.h"

namespace embedded {

/// Where a result column comes from; all empty for an expression, or when the engine cannot tell.
struct Origin {
    std::string schema;
    std::string table;
    std::string column;
};

/// The description of one result column.
struct Column {
    std::string name;
    ColumnType type;
    std::string typeName;                         ///< as declared; empty for an expression
    SQLSMALLINT nullable = SQL_NULLABLE_UNKNOWN;  ///< `Database::nullability` may know better
    Origin origin;
};

}  // namespace embedded
