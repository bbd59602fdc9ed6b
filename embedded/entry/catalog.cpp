// Entry points: the catalogue.
#include "core/callertext.h"
#include "core/statement.h"
#include "entry/entry.h"
#include "entry/runtime.h"

namespace embedded {
namespace {

struct Argument {
    const SQLCHAR* text;
    SQLSMALLINT length;
};

/// A null argument does not restrict the search; an empty one is a pattern like any other.
Pattern pattern(const Argument& argument) {
    if (!argument.text) return std::nullopt;
    return std::string(inputText(argument.text, argument.length));
}

/// Searches by a catalogue, a schema and a table; `refine` adds what else there is.
template <class Refine>
SQLRETURN search(SQLHSTMT handle, Catalog what, const Argument& catalog, const Argument& schema,
                 const Argument& table, Refine&& refine) noexcept {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        CatalogSearch search;
        search.what = what;
        search.catalog = pattern(catalog);
        search.schema = pattern(schema);
        search.table = pattern(table);
        refine(search);
        statement.openCatalog(search);
    });
}

constexpr auto kNoMore = [](CatalogSearch&) {};

void requireName(const Pattern& table) {
    if (!table) throw Error("HY009", "The name of the table is missing.", native::kMisuse);
}

}  // namespace
}  // namespace embedded

using namespace embedded;

SQLRETURN RT_SQLTables(const char*, SQLHSTMT handle, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                       SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table,
                       SQLSMALLINT tableLength, SQLCHAR* types, SQLSMALLINT typesLength) {
    return search(handle, Catalog::Tables, {catalog, catalogLength}, {schema, schemaLength},
                  {table, tableLength}, [&](CatalogSearch& search) {
                      search.detail = pattern({types, typesLength});
                  });
}

SQLRETURN RT_SQLColumns(const char*, SQLHSTMT handle, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                        SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table,
                        SQLSMALLINT tableLength, SQLCHAR* column, SQLSMALLINT columnLength) {
    return search(handle, Catalog::Columns, {catalog, catalogLength}, {schema, schemaLength},
                  {table, tableLength}, [&](CatalogSearch& search) {
                      search.detail = pattern({column, columnLength});
                  });
}

SQLRETURN RT_SQLPrimaryKeys(const char*, SQLHSTMT handle, SQLCHAR* catalog,
                            SQLSMALLINT catalogLength, SQLCHAR* schema, SQLSMALLINT schemaLength,
                            SQLCHAR* table, SQLSMALLINT tableLength) {
    return search(handle, Catalog::PrimaryKeys, {catalog, catalogLength}, {schema, schemaLength},
                  {table, tableLength},
                  [](const CatalogSearch& search) { requireName(search.table); });
}

SQLRETURN RT_SQLForeignKeys(const char*, SQLHSTMT handle, SQLCHAR* catalog,
                            SQLSMALLINT catalogLength, SQLCHAR* schema, SQLSMALLINT schemaLength,
                            SQLCHAR* table, SQLSMALLINT tableLength, SQLCHAR* foreignCatalog,
                            SQLSMALLINT foreignCatalogLength, SQLCHAR* foreignSchema,
                            SQLSMALLINT foreignSchemaLength, SQLCHAR* foreignTable,
                            SQLSMALLINT foreignTableLength) {
    return search(handle, Catalog::ForeignKeys, {catalog, catalogLength}, {schema, schemaLength},
                  {table, tableLength}, [&](CatalogSearch& search) {
                      search.foreignCatalog = pattern({foreignCatalog, foreignCatalogLength});
                      search.foreignSchema = pattern({foreignSchema, foreignSchemaLength});
                      search.foreignTable = pattern({foreignTable, foreignTableLength});
                      if (!search.table) requireName(search.foreignTable);
                  });
}

SQLRETURN RT_SQLStatistics(const char*, SQLHSTMT handle, SQLCHAR* catalog,
                           SQLSMALLINT catalogLength, SQLCHAR* schema, SQLSMALLINT schemaLength,
                           SQLCHAR* table, SQLSMALLINT tableLength, SQLUSMALLINT uniqueness,
                           SQLUSMALLINT accuracy) {
    return search(handle, Catalog::Statistics, {catalog, catalogLength}, {schema, schemaLength},
                  {table, tableLength}, [&](CatalogSearch& search) {
                      requireName(search.table);
                      search.uniqueness = uniqueness;
                      search.accuracy = accuracy;
                  });
}

SQLRETURN RT_SQLProcedures(const char*, SQLHSTMT handle, SQLCHAR* catalog,
                           SQLSMALLINT catalogLength, SQLCHAR* schema, SQLSMALLINT schemaLength,
                           SQLCHAR* procedure, SQLSMALLINT procedureLength) {
    return search(handle, Catalog::Procedures, {catalog, catalogLength}, {schema, schemaLength},
                  {procedure, procedureLength}, kNoMore);
}

SQLRETURN RT_SQLGetTypeInfo(const char*, SQLHSTMT handle, SQLSMALLINT type) {
    return search(handle, Catalog::Types, {}, {}, {},
                  [type](CatalogSearch& search) { search.type = type; });
}

RT_WIDE_IS_NARROW(SQLTables);
RT_WIDE_IS_NARROW(SQLColumns);
RT_WIDE_IS_NARROW(SQLPrimaryKeys);
RT_WIDE_IS_NARROW(SQLForeignKeys);
RT_WIDE_IS_NARROW(SQLStatistics);
RT_WIDE_IS_NARROW(SQLProcedures);
RT_WIDE_IS_NARROW(SQLGetTypeInfo);
