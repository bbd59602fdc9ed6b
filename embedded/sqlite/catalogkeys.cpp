// The catalogue's lists of keys and indexes.
#include "sqlite/catalogrows.h"

namespace embedded {
namespace {

constexpr SQLSMALLINT kRequired = SQL_NO_NULLS;

constexpr ColumnShape kPrimaryKeyShape[] = {
    {"TABLE_CAT"},
    {"TABLE_SCHEM"},
    {"TABLE_NAME", SQL_WVARCHAR, kRequired},
    {"COLUMN_NAME", SQL_WVARCHAR, kRequired},
    {"KEY_SEQ", SQL_SMALLINT, kRequired},
    {"PK_NAME"},
};
constexpr const char* kPrimaryKeys =
    "SELECT NULL, ?2, ?1, name, pk, NULL FROM pragma_table_xinfo(?1, ?2) WHERE pk > 0 ORDER BY pk";

constexpr ColumnShape kForeignKeyShape[] = {
    {"PKTABLE_CAT"},
    {"PKTABLE_SCHEM"},
    {"PKTABLE_NAME", SQL_WVARCHAR, kRequired},
    {"PKCOLUMN_NAME"},
    {"FKTABLE_CAT"},
    {"FKTABLE_SCHEM"},
    {"FKTABLE_NAME", SQL_WVARCHAR, kRequired},
    {"FKCOLUMN_NAME", SQL_WVARCHAR, kRequired},
    {"KEY_SEQ", SQL_SMALLINT, kRequired},
    {"UPDATE_RULE", SQL_SMALLINT},
    {"DELETE_RULE", SQL_SMALLINT},
    {"FK_NAME"},
    {"PK_NAME"},
    {"DEFERRABILITY", SQL_SMALLINT},
};
// SQLite counts the keys of a table from the last one. One that names no columns leads to the
// primary key.
const std::string kForeignKeys = [] {
    const auto rule = [](const std::string& column) {
        return "CASE " + column +
               " WHEN 'CASCADE' THEN 0 WHEN 'RESTRICT' THEN 1 WHEN 'SET NULL' THEN 2"
               " WHEN 'NO ACTION' THEN 3 WHEN 'SET DEFAULT' THEN 4 END";
    };
    return R"(SELECT NULL, ?2, f."table", coalesce(f."to", (SELECT name)"
           R"( FROM pragma_table_xinfo(f."table", ?2) WHERE pk = f.seq + 1)),)"
           R"( NULL, ?2, ?1, f."from", f.seq + 1, )" +
           rule("on_update") + ", " + rule("on_delete") +
           R"(, NULL, NULL, NULL FROM pragma_foreign_key_list(?1, ?2) f)"
           R"( WHERE f."table" LIKE ?3 ESCAPE '\' ORDER BY f."table", f.id DESC, f.seq)";
}();

constexpr ColumnShape kStatisticsShape[] = {
    {"TABLE_CAT"},
    {"TABLE_SCHEM"},
    {"TABLE_NAME", SQL_WVARCHAR, kRequired},
    {"NON_UNIQUE", SQL_SMALLINT},
    {"INDEX_QUALIFIER"},
    {"INDEX_NAME"},
    {"TYPE", SQL_SMALLINT, kRequired},
    {"ORDINAL_POSITION", SQL_SMALLINT},
    {"COLUMN_NAME"},
    {"ASC_OR_DESC"},
    {"CARDINALITY", SQL_INTEGER},
    {"PAGES", SQL_INTEGER},
    {"FILTER_CONDITION"},
};
// 3 is SQL_INDEX_OTHER. An expression in an index has no name, and the condition of a partial one
// is not told: empty texts, as the standard has it.
constexpr const char* kStatistics =
    "SELECT NULL, ?2, ?1, 1 - l.\"unique\", NULL, l.name, 3, x.seqno + 1, coalesce(x.name, ''),"
    " CASE x.\"desc\" WHEN 1 THEN 'D' ELSE 'A' END, NULL, NULL,"
    " CASE l.partial WHEN 1 THEN '' END"
    " FROM pragma_index_list(?1, ?2) l JOIN pragma_index_xinfo(l.name, ?2) x"
    " WHERE x.key = 1 AND (?3 = '' OR l.\"unique\" = 1)"
    " ORDER BY 1 - l.\"unique\", l.name, x.seqno";

/// What `sql` finds for each table, taking its name, its schema and `more`.
std::unique_ptr<ResultSet> ofTables(Session& session, std::span<const ColumnShape> shape,
                                    const Pattern& schema, const Pattern& name,
                                    const std::string& sql, std::string_view more) {
    auto rows = rowsOf(shape);
    for (const Table& table : tables(session, exactly(schema), exactly(name)))
        appendQuery(session, *rows, sql, {table.name, table.schema, more});
    return rows;
}

}  // namespace

std::unique_ptr<ResultSet> listPrimaryKeys(Session& session, const CatalogSearch& search) {
    if (!matchesNoCatalog(search.catalog)) return rowsOf(kPrimaryKeyShape);
    return ofTables(session, kPrimaryKeyShape, search.schema, search.table, kPrimaryKeys, "");
}

std::unique_ptr<ResultSet> listForeignKeys(Session& session, const CatalogSearch& search) {
    if (!matchesNoCatalog(search.catalog) || !matchesNoCatalog(search.foreignCatalog))
        return rowsOf(kForeignKeyShape);
    // Both ends of a key are in one database.
    const Pattern& schema = search.foreignSchema ? search.foreignSchema : search.schema;
    return ofTables(session, kForeignKeyShape, schema, search.foreignTable, kForeignKeys,
                    exactly(search.table).value_or("%"));
}

std::unique_ptr<ResultSet> listStatistics(Session& session, const CatalogSearch& search) {
    if (!matchesNoCatalog(search.catalog)) return rowsOf(kStatisticsShape);
    return ofTables(session, kStatisticsShape, search.schema, search.table, kStatistics,
                    search.uniqueness == SQL_INDEX_UNIQUE ? "unique" : "");
}

}  // namespace embedded
