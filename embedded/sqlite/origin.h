#pragma once

#include <sqlite3.h>

#include <string>
#include <string_view>

#include "values/column.h"

namespace embedded {

/// Where a result column comes from; nothing with an SQLite that cannot tell.
Origin originOf(sqlite3_stmt* statement, int column);

/// Whether the table keeps NULL out of its column.
bool isNeverNull(sqlite3* db, const Origin& origin);

/// The column of a table that is its row number ("id INTEGER PRIMARY KEY"): of all columns not
/// declared NOT NULL the only one that never is NULL. Empty when there is none.
std::string rowNumberColumn(sqlite3* db, std::string_view schema, std::string_view table);

/// `name` as a quoted SQL identifier.
std::string quotedName(std::string_view name);

}  // namespace embedded
