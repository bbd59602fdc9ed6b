#pragma once

#include <sqlite3.h>

#include <memory>
#include <string_view>

#include "engine.h"

namespace embedded {

/// Whether `text` matches `pattern`, ASCII letters in any case, as SQLite compares names.
bool matches(std::string_view text, const Pattern& pattern);

/// The result of SQLTables; `detail` is a list like "TABLE,'VIEW'". SQLite's databases (main, temp
/// and the attached ones) are the schemas; there are no catalogues. An empty pattern beside a "%"
/// asks for a list of schemas, catalogues or table types, as the standard has it.
std::unique_ptr<ResultSet> listTables(sqlite3* db, const CatalogSearch& search);

/// The result of SQLColumns.
std::unique_ptr<ResultSet> listColumns(sqlite3* db, const CatalogSearch& search);

}  // namespace embedded
