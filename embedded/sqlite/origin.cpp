#include "sqlite/origin.h"

#include <new>

#include "core/error.h"
#include "sqlite/query.h"
#include "values/text.h"

// An SQLite built without column metadata lacks these; columns then have no known origin.
extern "C" {
__attribute__((weak)) const char* sqlite3_column_database_name(sqlite3_stmt*, int);
__attribute__((weak)) const char* sqlite3_column_table_name(sqlite3_stmt*, int);
__attribute__((weak)) const char* sqlite3_column_origin_name(sqlite3_stmt*, int);
}

namespace embedded {
namespace {

using OriginFunction = const char* (*)(sqlite3_stmt*, int);

std::string part(OriginFunction function, sqlite3_stmt* statement, int column) {
    const char* name = function ? function(statement, column) : nullptr;
    return name ? name : "";
}

}  // namespace

Origin originOf(sqlite3_stmt* statement, int column) {
    return {part(sqlite3_column_database_name, statement, column),
            part(sqlite3_column_table_name, statement, column),
            part(sqlite3_column_origin_name, statement, column)};
}

std::string rowNumberColumn(sqlite3* db, std::string_view schema, std::string_view table) {
    try {
        const Query query(db, "SELECT rowid FROM " + quotedName(schema) + "." + quotedName(table));
        return part(sqlite3_column_origin_name, query.get(), 0);
    } catch (const Error&) {
        return {};
    }
}

bool isNeverNull(sqlite3* db, const Origin& origin) {
    int notNull = 0;
    int primaryKey = 0;
    const char* declared = nullptr;
    const int result = sqlite3_table_column_metadata(
        db, origin.schema.c_str(), origin.table.c_str(), origin.column.c_str(), &declared, nullptr,
        &notNull, &primaryKey, nullptr);
    // Views have none.
    if (result == SQLITE_NOMEM) throw std::bad_alloc();
    if (result != SQLITE_OK) return false;
    if (notNull) return true;
    return primaryKey && declared && sameWord(declared, "INTEGER") &&
           sameWord(rowNumberColumn(db, origin.schema, origin.table), origin.column);
}

std::string quotedName(std::string_view name) {
    std::string result = "\"";
    for (const char c : name) {
        if (c == '"') result += '"';
        result += c;
    }
    return result + '"';
}

}  // namespace embedded
