// What an application can find out about SQLite and what this engine makes of it.
#include <algorithm>
#include <cstdio>
#include <iterator>

#include "sqlite/database.h"

namespace embedded {
namespace {

struct TextInfo {
    SQLUSMALLINT type;
    const char* value;
};

struct NumberInfo {
    SQLUSMALLINT type;
    SQLUINTEGER value;
};

constexpr TextInfo kTexts[] = {
    {SQL_ACCESSIBLE_PROCEDURES, "N"},
    {SQL_ACCESSIBLE_TABLES, "Y"},
    {SQL_CATALOG_NAME, "N"},
    {SQL_CATALOG_NAME_SEPARATOR, ""},
    {SQL_CATALOG_TERM, ""},
    {SQL_COLUMN_ALIAS, "Y"},
    {SQL_DBMS_NAME, "SQLite"},
    {SQL_DESCRIBE_PARAMETER, "N"},
    {SQL_EXPRESSIONS_IN_ORDERBY, "Y"},
    {SQL_IDENTIFIER_QUOTE_CHAR, "\""},
    {SQL_INTEGRITY, "Y"},
    {SQL_KEYWORDS, ""},
    {SQL_LIKE_ESCAPE_CLAUSE, "Y"},
    {SQL_MAX_ROW_SIZE_INCLUDES_LONG, "Y"},
    {SQL_MULT_RESULT_SETS, "N"},
    {SQL_MULTIPLE_ACTIVE_TXN, "Y"},
    {SQL_NEED_LONG_DATA_LEN, "N"},
    {SQL_ORDER_BY_COLUMNS_IN_SELECT, "N"},
    {SQL_OUTER_JOINS, "Y"},
    {SQL_PROCEDURE_TERM, ""},
    {SQL_PROCEDURES, "N"},
    {SQL_ROW_UPDATES, "N"},
    {SQL_SCHEMA_TERM, "database"},
    {SQL_SEARCH_PATTERN_ESCAPE, "\\"},
    {SQL_SERVER_NAME, ""},
    {SQL_SPECIAL_CHARACTERS, "$"},
    {SQL_TABLE_TERM, "table"},
    {SQL_USER_NAME, ""},
    {SQL_XOPEN_CLI_YEAR, "1995"},
};

constexpr NumberInfo kNumbers[] = {
    {SQL_ACTIVE_ENVIRONMENTS, 0},
    {SQL_CATALOG_LOCATION, 0},
    {SQL_CONCAT_NULL_BEHAVIOR, SQL_CB_NULL},
    {SQL_CORRELATION_NAME, SQL_CN_ANY},
    {SQL_CURSOR_COMMIT_BEHAVIOR, SQL_CB_PRESERVE},
    {SQL_CURSOR_ROLLBACK_BEHAVIOR, SQL_CB_CLOSE},
    {SQL_FILE_USAGE, SQL_FILE_NOT_SUPPORTED},
    {SQL_GROUP_BY, SQL_GB_NO_RELATION},
    {SQL_IDENTIFIER_CASE, SQL_IC_MIXED},
    {SQL_MAX_CATALOG_NAME_LEN, 0},
    {SQL_MAX_COLUMN_NAME_LEN, 0},
    {SQL_MAX_COLUMNS_IN_SELECT, 0},
    {SQL_MAX_CONCURRENT_ACTIVITIES, 0},
    {SQL_MAX_DRIVER_CONNECTIONS, 0},
    {SQL_MAX_IDENTIFIER_LEN, 0},
    {SQL_MAX_SCHEMA_NAME_LEN, 0},
    {SQL_MAX_TABLE_NAME_LEN, 0},
    {SQL_NON_NULLABLE_COLUMNS, SQL_NNC_NON_NULL},
    {SQL_NULL_COLLATION, SQL_NC_LOW},
    {SQL_QUOTED_IDENTIFIER_CASE, SQL_IC_MIXED},
    {SQL_TXN_CAPABLE, SQL_TC_ALL},
    {SQL_ASYNC_MODE, SQL_AM_NONE},
    {SQL_BATCH_ROW_COUNT, SQL_BRC_ROLLED_UP},
    {SQL_BATCH_SUPPORT, 0},
    {SQL_CATALOG_USAGE, 0},
    {SQL_CURSOR_SENSITIVITY, SQL_UNSPECIFIED},
    {SQL_DEFAULT_TXN_ISOLATION, SQL_TXN_SERIALIZABLE},
    {SQL_FORWARD_ONLY_CURSOR_ATTRIBUTES1, SQL_CA1_NEXT},
    {SQL_FORWARD_ONLY_CURSOR_ATTRIBUTES2, SQL_CA2_READ_ONLY_CONCURRENCY},
    {SQL_MAX_STATEMENT_LEN, 0},
    {SQL_PARAM_ARRAY_ROW_COUNTS, SQL_PARC_NO_BATCH},
    {SQL_PARAM_ARRAY_SELECTS, SQL_PAS_NO_SELECT},
    {SQL_SCHEMA_USAGE, SQL_SU_DML_STATEMENTS | SQL_SU_TABLE_DEFINITION | SQL_SU_INDEX_DEFINITION},
    {SQL_SCROLL_OPTIONS, SQL_SO_FORWARD_ONLY},
    {SQL_SUBQUERIES, SQL_SQ_CORRELATED_SUBQUERIES | SQL_SQ_COMPARISON | SQL_SQ_EXISTS | SQL_SQ_IN},
    {SQL_TXN_ISOLATION_OPTION, SQL_TXN_SERIALIZABLE},
    {SQL_UNION, SQL_U_UNION | SQL_U_UNION_ALL},
};

template <class Entry, size_t Count>
const Entry* find(const Entry (&table)[Count], SQLUSMALLINT type) noexcept {
    const auto found = std::find_if(std::begin(table), std::end(table),
                                    [type](const Entry& entry) { return entry.type == type; });
    return found == std::end(table) ? nullptr : found;
}

/// "03.40.0001" for SQLite 3.40.1.
std::string databaseVersion() {
    const int number = sqlite3_libversion_number();
    char text[16];
    std::snprintf(text, sizeof text, "%02d.%02d.%04d", number / 1'000'000, number / 1000 % 1000,
                  number % 1000);
    return text;
}

}  // namespace

std::optional<Information> SqliteDatabase::information(SQLUSMALLINT type) {
    if (const TextInfo* text = find(kTexts, type)) return text->value;
    if (const NumberInfo* number = find(kNumbers, type)) return number->value;
    switch (type) {
        case SQL_DBMS_VER:
            return databaseVersion();
        case SQL_DATABASE_NAME:
            return m_name;
        case SQL_DATA_SOURCE_NAME:
            return "";
        case SQL_DATA_SOURCE_READ_ONLY:
            return isReadOnly() ? "Y" : "N";
        default:
            return std::nullopt;
    }
}

}  // namespace embedded
