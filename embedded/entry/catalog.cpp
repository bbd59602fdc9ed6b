// Entry points: the catalogue.
#include "core/callertext.h"
#include "core/statement.h"
#include "entry/entry.h"
#include "entry/runtime.h"

namespace embedded {
namespace {

/// A null argument does not restrict the search; an empty one is a pattern like any other.
Pattern pattern(const SQLCHAR* text, SQLSMALLINT length) {
    if (!text) return std::nullopt;
    return std::string(inputText(text, length));
}

}  // namespace
}  // namespace embedded

using namespace embedded;

SQLRETURN RT_SQLTables(const char*, SQLHSTMT handle, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                       SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table,
                       SQLSMALLINT tableLength, SQLCHAR* types, SQLSMALLINT typesLength) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        statement.openCatalog(&Database::tables,
                              {pattern(catalog, catalogLength), pattern(schema, schemaLength),
                               pattern(table, tableLength), pattern(types, typesLength)});
        return SQL_SUCCESS;
    });
}

SQLRETURN RT_SQLColumns(const char*, SQLHSTMT handle, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                        SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table,
                        SQLSMALLINT tableLength, SQLCHAR* column, SQLSMALLINT columnLength) {
    return withHandle<Statement>(handle, [&](Statement& statement) {
        statement.openCatalog(&Database::columns,
                              {pattern(catalog, catalogLength), pattern(schema, schemaLength),
                               pattern(table, tableLength), pattern(column, columnLength)});
        return SQL_SUCCESS;
    });
}

RT_WIDE_IS_NARROW(SQLTables);
RT_WIDE_IS_NARROW(SQLColumns);
