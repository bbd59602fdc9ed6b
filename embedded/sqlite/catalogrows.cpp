#include "sqlite/catalogrows.h"

#include <utility>

#include "sql/procedures.h"
#include "sqlite/origin.h"
#include "sqlite/query.h"
#include "sqlite/schemaguard.h"
#include "values/columntype.h"
#include "values/text.h"

namespace embedded {

std::unique_ptr<StoredRows> rowsOf(std::span<const ColumnShape> shape) {
    std::vector<Column> columns;
    for (const ColumnShape& entry : shape) {
        Column column;
        column.name = entry.name;
        column.type = {entry.sqlType, traitsOf(entry.sqlType).size, 0};
        column.nullable = entry.nullable;
        columns.push_back(std::move(column));
    }
    return std::make_unique<StoredRows>(std::move(columns));
}

std::vector<Row> query(Session& session, const std::string& sql,
                       std::initializer_list<std::string_view> parameters) {
    session.requireTime();
    std::vector<Row> rows;
    try {
        for (Query query(session.db(), sql, parameters); query.next();) {
            Row row;
            for (int i = 0; i < query.columnCount(); ++i) row.push_back(query.value(i));
            rows.push_back(std::move(row));
        }
    } catch (const Error&) {
        throw session.failure();  // which knows who ended it
    }
    return rows;
}

void appendQuery(Session& session, StoredRows& rows, const std::string& sql,
                 std::initializer_list<std::string_view> parameters) {
    for (const Row& row : query(session, sql, parameters)) {
        std::vector<Cell> cells;
        for (const std::optional<std::string>& value : row) {
            const bool isText = rows.columns()[cells.size()].type.sqlType == SQL_WVARCHAR;
            cells.push_back(!value   ? Cell{}
                            : isText ? Cell::text(*value)
                                     : Cell::number(std::stoll(*value)));
        }
        rows.append(cells);
    }
}

std::vector<std::string> schemas(Session& session) {
    std::vector<std::string> names;
    for (const Row& row : query(session, "SELECT name FROM pragma_database_list ORDER BY seq")) {
        names.push_back(row[0].value_or(""));
    }
    return names;
}

std::vector<Table> tables(Session& session, const Pattern& schema, const Pattern& name) {
    std::vector<Table> found;
    for (const std::string& schemaName : schemas(session)) {
        if (!matches(schemaName, schema)) continue;
        // The temporary database calls its own table otherwise.
        const bool temporary = sameWord(schemaName, "temp");
        const std::string master = temporary ? "sqlite_temp_master" : "sqlite_master";
        std::vector<Row> rows =
            query(session, "SELECT name, type FROM " + quotedName(schemaName) + "." + master +
                               " WHERE type IN ('table', 'view')");
        if (!temporary || !rows.empty()) rows.push_back({master, "table"});
        if (sameWord(schemaName, "main")) {
            for (const std::string_view own : {kProceduresTable, kProcedureParametersTable})
                rows.push_back({std::string(own), "table"});
        }
        for (const Row& row : rows) {
            const std::string& table = *row[0];
            if (!matches(table, name)) continue;
            const bool system =
                sameWord(std::string_view(table).substr(0, 7), "sqlite_") || isSystemName(table);
            found.push_back({schemaName, table,
                             *row[1] == "view" ? kView
                             : system          ? kSystemTable
                                               : kTable});
        }
    }
    return found;
}

bool matches(std::string_view name, const Pattern& pattern) {
    if (!pattern) return true;
    return sqlite3_strlike(pattern->c_str(), std::string(name).c_str(), '\\') == 0;
}

bool matchesNoCatalog(const Pattern& catalog) {
    return matches("", catalog);
}

Pattern exactly(const Pattern& name) {
    if (!name) return std::nullopt;
    std::string pattern;
    for (const char c : *name) {
        if (c == '%' || c == '_' || c == '\\') pattern += '\\';
        pattern += c;
    }
    return pattern;
}

}  // namespace embedded
