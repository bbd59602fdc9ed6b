#pragma once

#include <memory>
#include <string_view>

#include "engine.h"
#include "sqlite/session.h"

namespace embedded {

/// Whether `text` matches `pattern`, ASCII letters in any case, as SQLite compares names.
bool matches(std::string_view text, const Pattern& pattern);

/// The result of SQLTables; `detail` is a list like "TABLE,'VIEW'". SQLite's databases (main, temp
/// and the attached ones) are the schemas; there are no catalogues. An empty pattern beside a "%"
/// asks for a list of schemas, catalogues or table types, as the standard has it.
std::unique_ptr<ResultSet> listTables(Session& session, const CatalogSearch& search);

/// The result of SQLColumns.
std::unique_ptr<ResultSet> listColumns(Session& session, const CatalogSearch& search);

}  // namespace embedded
