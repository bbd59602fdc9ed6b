// The catalogue's lists of types and procedures.
#include "sql/procedures.h"
#include "sqlite/catalogrows.h"
#include "values/columntype.h"

namespace embedded {
namespace {

constexpr SQLSMALLINT kRequired = SQL_NO_NULLS;

constexpr ColumnShape kProcedureShape[] = {
    {"PROCEDURE_CAT"},
    {"PROCEDURE_SCHEM"},
    {"PROCEDURE_NAME", SQL_WVARCHAR, kRequired},
    {"NUM_INPUT_PARAMS", SQL_INTEGER},
    {"NUM_OUTPUT_PARAMS", SQL_INTEGER},
    {"NUM_RESULT_SETS", SQL_INTEGER},
    {"REMARKS"},
    {"PROCEDURE_TYPE", SQL_SMALLINT},
};

constexpr ColumnShape kTypeShape[] = {
    {"TYPE_NAME", SQL_WVARCHAR, kRequired},
    {"DATA_TYPE", SQL_SMALLINT, kRequired},
    {"COLUMN_SIZE", SQL_INTEGER},
    {"LITERAL_PREFIX"},
    {"LITERAL_SUFFIX"},
    {"CREATE_PARAMS"},
    {"NULLABLE", SQL_SMALLINT, kRequired},
    {"CASE_SENSITIVE", SQL_SMALLINT, kRequired},
    {"SEARCHABLE", SQL_SMALLINT, kRequired},
    {"UNSIGNED_ATTRIBUTE", SQL_SMALLINT},
    {"FIXED_PREC_SCALE", SQL_SMALLINT, kRequired},
    {"AUTO_UNIQUE_VALUE", SQL_SMALLINT},
    {"LOCAL_TYPE_NAME"},
    {"MINIMUM_SCALE", SQL_SMALLINT},
    {"MAXIMUM_SCALE", SQL_SMALLINT},
    {"SQL_DATA_TYPE", SQL_SMALLINT, kRequired},
    {"SQL_DATETIME_SUB", SQL_SMALLINT},
    {"NUM_PREC_RADIX", SQL_INTEGER},
    {"INTERVAL_PRECISION", SQL_SMALLINT},
};

// In the order of their numbers, as the standard wants them, with what CREATE TABLE may say of
// them.
constexpr struct {
    SQLSMALLINT sqlType;
    const char* parameters;
} kTypes[] = {
    {SQL_WVARCHAR, "length"},
    {SQL_BIT, ""},
    {SQL_BIGINT, ""},
    {SQL_VARBINARY, "length"},
    {SQL_DECIMAL, "precision,scale"},
    {SQL_DOUBLE, ""},
    {SQL_TYPE_DATE, ""},
    {SQL_TYPE_TIME, "precision"},
    {SQL_TYPE_TIMESTAMP, "precision"},
};

Cell textOrNull(std::string_view text) {
    return text.empty() ? Cell{} : Cell::text(text);
}

Cell numberIf(bool known, std::int64_t value) {
    return known ? Cell::number(value) : Cell{};
}

}  // namespace

std::unique_ptr<ResultSet> listProcedures(Session& session, const CatalogSearch& search) {
    auto rows = rowsOf(kProcedureShape);
    if (!matchesNoCatalog(search.catalog) || !matches("main", search.schema)) return rows;
    appendQuery(session, *rows,
                "SELECT NULL, 'main', ProcedureName, (SELECT count(*) FROM " +
                    std::string(kProcedureParametersTable) +
                    " a WHERE a.ProcedureName = p.ProcedureName), 0, NULL, NULL, 1 FROM " +
                    std::string(kProceduresTable) +
                    " p WHERE ProcedureName LIKE ?1 ESCAPE '\\' ORDER BY ProcedureName",
                {search.table ? std::string_view(*search.table) : "%"});
    return rows;
}

std::unique_ptr<ResultSet> listTypes(SQLSMALLINT type) {
    auto rows = rowsOf(kTypeShape);
    for (const auto& [sqlType, parameters] : kTypes) {
        if (type != SQL_ALL_TYPES && type != sqlType) continue;
        const TypeTraits& traits = traitsOf(sqlType);
        const bool isText = sqlType == SQL_WVARCHAR;
        const bool hasScale = sqlType == SQL_DECIMAL;
        rows->append({
            Cell::text(traits.name),
            Cell::number(sqlType),
            numberIf(traits.size != 0, static_cast<std::int64_t>(traits.size)),
            sqlType == SQL_VARBINARY ? Cell::text("x'") : textOrNull(traits.quote),
            textOrNull(traits.quote),
            textOrNull(parameters),
            Cell::number(SQL_NULLABLE),
            Cell::number(isText ? SQL_TRUE : SQL_FALSE),
            Cell::number(SQL_SEARCHABLE),
            numberIf(traits.radix != 0, SQL_FALSE),
            Cell::number(SQL_FALSE),
            numberIf(traits.radix != 0, SQL_FALSE),
            Cell{},
            numberIf(hasScale, 0),
            numberIf(hasScale, 15),
            Cell::number(traits.verboseType),
            numberIf(traits.subcode != 0, traits.subcode),
            numberIf(traits.radix != 0, traits.radix),
            Cell{},
        });
    }
    return rows;
}

}  // namespace embedded
