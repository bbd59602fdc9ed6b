#include "sqlite/catalog.h"

#include <algorithm>
#include <initializer_list>
#include <tuple>
#include <utility>
#include <vector>

#include "core/describe.h"
#include "sql/procedures.h"
#include "sqlite/origin.h"
#include "sqlite/query.h"
#include "sqlite/schemaguard.h"
#include "values/columntype.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr std::string_view kTable = "TABLE";
constexpr std::string_view kView = "VIEW";
constexpr std::string_view kSystemTable = "SYSTEM TABLE";

struct ColumnShape {
    const char* name;
    SQLSMALLINT sqlType;
    SQLSMALLINT nullable;
};

constexpr ColumnShape kTableShape[] = {
    {"TABLE_CAT", SQL_WVARCHAR, SQL_NULLABLE},  {"TABLE_SCHEM", SQL_WVARCHAR, SQL_NULLABLE},
    {"TABLE_NAME", SQL_WVARCHAR, SQL_NULLABLE}, {"TABLE_TYPE", SQL_WVARCHAR, SQL_NULLABLE},
    {"REMARKS", SQL_WVARCHAR, SQL_NULLABLE},
};

constexpr ColumnShape kColumnShape[] = {
    {"TABLE_CAT", SQL_WVARCHAR, SQL_NULLABLE},
    {"TABLE_SCHEM", SQL_WVARCHAR, SQL_NULLABLE},
    {"TABLE_NAME", SQL_WVARCHAR, SQL_NO_NULLS},
    {"COLUMN_NAME", SQL_WVARCHAR, SQL_NO_NULLS},
    {"DATA_TYPE", SQL_SMALLINT, SQL_NO_NULLS},
    {"TYPE_NAME", SQL_WVARCHAR, SQL_NO_NULLS},
    {"COLUMN_SIZE", SQL_INTEGER, SQL_NULLABLE},
    {"BUFFER_LENGTH", SQL_INTEGER, SQL_NULLABLE},
    {"DECIMAL_DIGITS", SQL_SMALLINT, SQL_NULLABLE},
    {"NUM_PREC_RADIX", SQL_SMALLINT, SQL_NULLABLE},
    {"NULLABLE", SQL_SMALLINT, SQL_NO_NULLS},
    {"REMARKS", SQL_WVARCHAR, SQL_NULLABLE},
    {"COLUMN_DEF", SQL_WVARCHAR, SQL_NULLABLE},
    {"SQL_DATA_TYPE", SQL_SMALLINT, SQL_NO_NULLS},
    {"SQL_DATETIME_SUB", SQL_SMALLINT, SQL_NULLABLE},
    {"CHAR_OCTET_LENGTH", SQL_INTEGER, SQL_NULLABLE},
    {"ORDINAL_POSITION", SQL_INTEGER, SQL_NO_NULLS},
    {"IS_NULLABLE", SQL_WVARCHAR, SQL_NULLABLE},
};

template <size_t Count>
std::unique_ptr<StoredRows> rowsOf(const ColumnShape (&shape)[Count]) {
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

Cell null() {
    return {};
}

constexpr auto text = Cell::text;
constexpr auto number = Cell::number;

Cell knownNumber(std::int64_t value) {
    return value ? number(value) : null();
}

using Row = std::vector<std::optional<std::string>>;

/// All rows of `sql`, its markers taking `parameters`, as texts.
std::vector<Row> query(Session& session, const std::string& sql,
                       std::initializer_list<std::string_view> parameters = {}) {
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

struct Table {
    std::string schema;
    std::string name;
    std::string_view type;
};

std::vector<std::string> schemas(Session& session) {
    std::vector<std::string> names;
    for (const Row& row : query(session, "SELECT name FROM pragma_database_list ORDER BY seq")) {
        names.push_back(row[0].value_or(""));
    }
    return names;
}

/// The tables and views whose schema and name match, the objects of SQLite itself included.
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

/// Whether `type` is in a list like "TABLE, 'VIEW'".
bool isListed(std::string_view type, const Pattern& list) {
    if (!list || list->empty() || *list == "%") return true;
    std::string_view rest = *list;
    while (!rest.empty()) {
        const size_t comma = std::min(rest.find(','), rest.size());
        std::string_view entry = trimmed(rest.substr(0, comma));
        if (entry.size() >= 2 && entry.front() == '\'' && entry.back() == '\'') {
            entry = entry.substr(1, entry.size() - 2);
        }
        if (sameWord(entry, type)) return true;
        rest.remove_prefix(std::min(comma + 1, rest.size()));
    }
    return false;
}

bool isEmpty(const Pattern& pattern) noexcept {
    return pattern && pattern->empty();
}

bool asksForAll(const Pattern& pattern) noexcept {
    return pattern && *pattern == "%";
}

/// There are no catalogues: only a pattern that also matches the empty name finds anything.
bool matchesNoCatalog(const Pattern& catalog) {
    return matches("", catalog);
}

void appendColumn(StoredRows& rows, const Table& table, const Row& info, int position,
                  bool isRowNumber) {
    const std::string& name = *info[0];
    const std::string declared = info[1].value_or("");
    const bool notNull = info[2] == "1" || isRowNumber;
    const ColumnType type = isTyped(declared) ? typeOfDeclaration(declared) : ColumnType{};
    const TypeTraits& traits = traitsOf(type.sqlType);
    const bool hasDigits =
        traits.radix != 0 || type.sqlType == SQL_TYPE_TIME || type.sqlType == SQL_TYPE_TIMESTAMP;
    const bool isBytes = type.sqlType == SQL_WVARCHAR || type.sqlType == SQL_VARBINARY;
    rows.append({
        null(),
        text(table.schema),
        text(table.name),
        text(name),
        number(type.sqlType),
        text(isTyped(declared) ? std::string_view(declared) : traits.name),
        knownNumber(static_cast<std::int64_t>(type.size)),
        knownNumber(octetLength(type)),
        hasDigits && type.sqlType != SQL_DOUBLE ? number(type.scale) : null(),
        knownNumber(traits.radix),
        number(notNull ? SQL_NO_NULLS : SQL_NULLABLE),
        null(),
        info[3] ? text(*info[3]) : null(),
        number(traits.verboseType),
        knownNumber(traits.subcode),
        isBytes ? knownNumber(octetLength(type)) : null(),
        number(position),
        text(notNull ? "NO" : "YES"),
    });
}

}  // namespace

bool matches(std::string_view name, const Pattern& pattern) {
    if (!pattern) return true;
    return sqlite3_strlike(pattern->c_str(), std::string(name).c_str(), '\\') == 0;
}

std::unique_ptr<ResultSet> listTables(Session& session, const CatalogSearch& search) {
    const auto& [catalog, schema, table, types] = search;
    auto rows = rowsOf(kTableShape);
    if (asksForAll(catalog) && isEmpty(schema) && isEmpty(table)) return rows;
    if (isEmpty(catalog) && asksForAll(schema) && isEmpty(table)) {
        for (const std::string& name : schemas(session)) {
            rows->append({null(), text(name), null(), null(), null()});
        }
        return rows;
    }
    if (isEmpty(catalog) && isEmpty(schema) && isEmpty(table) && asksForAll(types)) {
        for (const std::string_view type : {kSystemTable, kTable, kView}) {
            rows->append({null(), null(), null(), text(type), null()});
        }
        return rows;
    }
    if (!matchesNoCatalog(catalog)) return rows;
    std::vector<Table> found = tables(session, schema, table);
    std::erase_if(found, [&](const Table& entry) { return !isListed(entry.type, search.detail); });
    std::sort(found.begin(), found.end(), [](const Table& a, const Table& b) {
        return std::tie(a.type, a.schema, a.name) < std::tie(b.type, b.schema, b.name);
    });
    for (const Table& entry : found) {
        rows->append({null(), text(entry.schema), text(entry.name), text(entry.type), null()});
    }
    return rows;
}

std::unique_ptr<ResultSet> listColumns(Session& session, const CatalogSearch& search) {
    const auto& [catalog, schema, table, column] = search;
    auto rows = rowsOf(kColumnShape);
    if (!matchesNoCatalog(catalog)) return rows;
    std::vector<Table> found = tables(session, schema, table);
    std::sort(found.begin(), found.end(), [](const Table& a, const Table& b) {
        return std::tie(a.schema, a.name) < std::tie(b.schema, b.name);
    });
    // The columns that SELECT * gives: all but the hidden ones of virtual tables.
    const char* const kColumns =
        "SELECT name, type, \"notnull\", dflt_value FROM pragma_table_xinfo(?1, ?2)"
        " WHERE hidden <> 1 ORDER BY cid";
    for (const Table& entry : found) {
        int position = 0;
        const std::string rowNumber = rowNumberColumn(session.db(), entry.schema, entry.name);
        for (const Row& info : query(session, kColumns, {entry.name, entry.schema})) {
            ++position;
            if (!matches(*info[0], column)) continue;
            appendColumn(*rows, entry, info, position, sameWord(*info[0], rowNumber));
        }
    }
    return rows;
}

}  // namespace embedded
