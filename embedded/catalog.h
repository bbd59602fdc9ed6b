#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "connection.h"
#include "resultset.h"

namespace embedded {

/// A search argument of a catalogue function: a pattern with % and _ (\ in front takes them
/// literally), or nothing, which matches everything.
using Pattern = std::optional<std::string>;

/// Whether `text` matches `pattern`, ASCII letters in any case, as SQLite compares names.
bool matches(std::string_view text, const Pattern& pattern);

/// The result of SQLTables. `types` is a list like "TABLE,'VIEW'". SQLite's databases (main, temp
/// and the attached ones) are the schemas; there are no catalogues. An empty pattern beside a "%"
/// asks for a list of schemas, catalogues or table types, as the standard has it.
std::unique_ptr<ResultSet> listTables(Connection& connection, const Pattern& catalog,
                                      const Pattern& schema, const Pattern& table,
                                      const Pattern& types);

/// The result of SQLColumns.
std::unique_ptr<ResultSet> listColumns(Connection& connection, const Pattern& catalog,
                                       const Pattern& schema, const Pattern& table,
                                       const Pattern& column);

}  // namespace embedded
