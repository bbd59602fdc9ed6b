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

SQLRETURN search(SQLHSTMT handle, Statement::CatalogFunction function, const Argument& catalog,
                 const Argument& schema, const Argument& table, const Argument& detail) noexcept {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        statement.openCatalog(function,
                              {pattern(catalog), pattern(schema), pattern(table), pattern(detail)});
    });
}

}  // namespace
}  // namespace embedded

using namespace embedded;

SQLRETURN RT_SQLTables(const char*, SQLHSTMT handle, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                       SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table,
                       SQLSMALLINT tableLength, SQLCHAR* types, SQLSMALLINT typesLength) {
    return search(handle, &Database::tables, {catalog, catalogLength}, {schema, schemaLength},
                  {table, tableLength}, {types, typesLength});
}

SQLRETURN RT_SQLColumns(const char*, SQLHSTMT handle, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                        SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table,
                        SQLSMALLINT tableLength, SQLCHAR* column, SQLSMALLINT columnLength) {
    return search(handle, &Database::columns, {catalog, catalogLength}, {schema, schemaLength},
                  {table, tableLength}, {column, columnLength});
}

RT_WIDE_IS_NARROW(SQLTables);
RT_WIDE_IS_NARROW(SQLColumns);
