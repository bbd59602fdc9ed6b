#include "sqlite/catalog.h"

#include <algorithm>
#include <tuple>

#include "core/describe.h"
#include "sqlite/catalogrows.h"
#include "sqlite/origin.h"
#include "values/columntype.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr ColumnShape kTableShape[] = {
    {"TABLE_CAT"}, {"TABLE_SCHEM"}, {"TABLE_NAME"}, {"TABLE_TYPE"}, {"REMARKS"},
};

constexpr ColumnShape kColumnShape[] = {
    {"TABLE_CAT"},
    {"TABLE_SCHEM"},
    {"TABLE_NAME", SQL_WVARCHAR, SQL_NO_NULLS},
    {"COLUMN_NAME", SQL_WVARCHAR, SQL_NO_NULLS},
    {"DATA_TYPE", SQL_SMALLINT, SQL_NO_NULLS},
    {"TYPE_NAME", SQL_WVARCHAR, SQL_NO_NULLS},
    {"COLUMN_SIZE", SQL_INTEGER},
    {"BUFFER_LENGTH", SQL_INTEGER},
    {"DECIMAL_DIGITS", SQL_SMALLINT},
    {"NUM_PREC_RADIX", SQL_SMALLINT},
    {"NULLABLE", SQL_SMALLINT, SQL_NO_NULLS},
    {"REMARKS"},
    {"COLUMN_DEF"},
    {"SQL_DATA_TYPE", SQL_SMALLINT, SQL_NO_NULLS},
    {"SQL_DATETIME_SUB", SQL_SMALLINT},
    {"CHAR_OCTET_LENGTH", SQL_INTEGER},
    {"ORDINAL_POSITION", SQL_INTEGER, SQL_NO_NULLS},
    {"IS_NULLABLE"},
};

Cell null() {
    return {};
}

constexpr auto text = Cell::text;
constexpr auto number = Cell::number;

Cell knownNumber(std::int64_t value) {
    return value ? number(value) : null();
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

std::unique_ptr<ResultSet> listTables(Session& session, const CatalogSearch& search) {
    const Pattern &catalog = search.catalog, &schema = search.schema, &table = search.table;
    auto rows = rowsOf(kTableShape);
    if (asksForAll(catalog) && isEmpty(schema) && isEmpty(table)) return rows;
    if (isEmpty(catalog) && asksForAll(schema) && isEmpty(table)) {
        for (const std::string& name : schemas(session)) {
            rows->append({null(), text(name), null(), null(), null()});
        }
        return rows;
    }
    if (isEmpty(catalog) && isEmpty(schema) && isEmpty(table) && asksForAll(search.detail)) {
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
    auto rows = rowsOf(kColumnShape);
    if (!matchesNoCatalog(search.catalog)) return rows;
    std::vector<Table> found = tables(session, search.schema, search.table);
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
            if (!matches(*info[0], search.detail)) continue;
            appendColumn(*rows, entry, info, position, sameWord(*info[0], rowNumber));
        }
    }
    return rows;
}

std::unique_ptr<ResultSet> listCatalog(Session& session, const CatalogSearch& search) {
    switch (search.what) {
        case Catalog::Tables:
            return listTables(session, search);
        case Catalog::Columns:
            return listColumns(session, search);
        case Catalog::PrimaryKeys:
            return listPrimaryKeys(session, search);
        case Catalog::ForeignKeys:
            return listForeignKeys(session, search);
        case Catalog::Statistics:
            return listStatistics(session, search);
        case Catalog::Procedures:
            return listProcedures(session, search);
        case Catalog::ProcedureColumns:
            throw notSupported("SQLite's procedures tell no parameters here.");
        case Catalog::Types:
            break;
    }
    return listTypes(search.type);
}

}  // namespace embedded
