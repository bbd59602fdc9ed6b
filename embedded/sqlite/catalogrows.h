/// What the lists of the catalogue are made of.
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/resultset.h"
#include "engine.h"
#include "sqlite/session.h"

namespace embedded {

/// A column of a list.
struct ColumnShape {
    const char* name;
    SQLSMALLINT sqlType = SQL_WVARCHAR;
    SQLSMALLINT nullable = SQL_NULLABLE;
};

/// An empty list.
std::unique_ptr<StoredRows> rowsOf(std::span<const ColumnShape> shape);

using Row = std::vector<std::optional<std::string>>;

/// All rows of `sql`, its markers taking `parameters`, as texts.
std::vector<Row> query(Session& session, const std::string& sql,
                       std::initializer_list<std::string_view> parameters = {});

/// Appends them to a list that has the same columns.
void appendQuery(Session& session, StoredRows& rows, const std::string& sql,
                 std::initializer_list<std::string_view> parameters);

struct Table {
    std::string schema;
    std::string name;
    std::string_view type;
};

inline constexpr std::string_view kTable = "TABLE";
inline constexpr std::string_view kView = "VIEW";
inline constexpr std::string_view kSystemTable = "SYSTEM TABLE";

/// SQLite's databases: main, temp and the attached ones.
std::vector<std::string> schemas(Session& session);

/// The tables and views whose schema and name match, the objects of SQLite itself included.
std::vector<Table> tables(Session& session, const Pattern& schema, const Pattern& name);

/// Whether `text` matches `pattern`, ASCII letters in any case, as SQLite compares names.
bool matches(std::string_view text, const Pattern& pattern);

/// There are no catalogues: only a pattern that also matches the empty name finds anything.
bool matchesNoCatalog(const Pattern& catalog);

/// A pattern that matches a name and no other.
Pattern exactly(const Pattern& name);

// The lists, each in a form of its own.
std::unique_ptr<ResultSet> listTables(Session& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> listColumns(Session& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> listPrimaryKeys(Session& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> listForeignKeys(Session& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> listStatistics(Session& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> listProcedures(Session& session, const CatalogSearch& search);
std::unique_ptr<ResultSet> listTypes(SQLSMALLINT type);

}  // namespace embedded
