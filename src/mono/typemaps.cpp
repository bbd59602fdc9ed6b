#include "mono/typemaps.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>

#include "include/dbsource.h"
#include "include/sqltypes.h"

// Tables. They are not inverse to each other: both decimal
// codes travel as SQL_C_NUMERIC, which comes back as decimal only, and the same holds for
// SQL_FLOAT.
namespace {

struct Pair {
    int From, To;
};

constexpr Pair kDbTypeToODBCType[] = {
    {DBTYPE_BINARY, SQL_C_BINARY},
    {DBTYPE_TINYINT, SQL_C_TINYINT},
    {DBTYPE_BIT, SQL_C_BIT},
    {DBTYPE_DATE, SQL_C_DATE},
    {DBTYPE_DATETIME, SQL_C_TIMESTAMP},
    {DBTYPE_NUMERIC, SQL_C_NUMERIC},
    {DBTYPE_DOUBLE, SQL_C_DOUBLE},
    {DBTYPE_SMALLINT, SQL_C_SHORT},
    {DBTYPE_INTEGER, SQL_C_LONG},
    {DBTYPE_BIGINT, SQL_C_SBIGINT},
    {DBTYPE_FLOAT, SQL_C_FLOAT},
    {DBTYPE_TIME, SQL_C_TIME},
    {DBTYPE_DECIMAL, SQL_C_NUMERIC},
};

constexpr Pair kODBCTypeToDbType[] = {
    {SQL_C_SBIGINT, DBTYPE_BIGINT},  {SQL_C_BIT, DBTYPE_BIT},
    {SQL_C_TINYINT, DBTYPE_TINYINT}, {SQL_C_BINARY, DBTYPE_BINARY},
    {SQL_C_NUMERIC, DBTYPE_DECIMAL}, {SQL_C_LONG, DBTYPE_INTEGER},
    {SQL_C_SHORT, DBTYPE_SMALLINT},  {SQL_C_FLOAT, DBTYPE_FLOAT},
    {SQL_C_DOUBLE, DBTYPE_DOUBLE},   {SQL_C_DATE, DBTYPE_DATE},
    {SQL_C_TIME, DBTYPE_TIME},       {SQL_C_TIMESTAMP, DBTYPE_DATETIME},
};

constexpr Pair kODBCTypeToSQLType[] = {
    {SQL_C_SBIGINT, SQL_BIGINT},      {SQL_C_BIT, SQL_BIT},        {SQL_C_TINYINT, SQL_TINYINT},
    {SQL_C_BINARY, SQL_BINARY},       {SQL_C_CHAR, SQL_CHAR},      {SQL_C_NUMERIC, SQL_NUMERIC},
    {SQL_C_LONG, SQL_INTEGER},        {SQL_C_SHORT, SQL_SMALLINT}, {SQL_C_FLOAT, SQL_FLOAT},
    {SQL_C_DOUBLE, SQL_DOUBLE},       {SQL_C_DATE, SQL_DATE},      {SQL_C_TIME, SQL_TIME},
    {SQL_C_TIMESTAMP, SQL_TIMESTAMP},
};

constexpr Pair kSQLTypeToODBCType[] = {
    {SQL_BIT, SQL_C_BIT},
    {SQL_TINYINT, SQL_C_TINYINT},
    {SQL_BIGINT, SQL_C_SBIGINT},
    {SQL_VARBINARY, SQL_C_BINARY},
    {SQL_BINARY, SQL_C_BINARY},
    {SQL_CHAR, SQL_C_CHAR},
    {SQL_NUMERIC, SQL_C_NUMERIC},
    {SQL_DECIMAL, SQL_C_NUMERIC},
    {SQL_INTEGER, SQL_C_LONG},
    {SQL_SMALLINT, SQL_C_SHORT},
    {SQL_FLOAT, SQL_C_DOUBLE},
    {SQL_REAL, SQL_C_FLOAT},
    {SQL_DOUBLE, SQL_C_DOUBLE},
    {SQL_DATE, SQL_C_DATE},
    {SQL_TIME, SQL_C_TIME},
    {SQL_TIMESTAMP, SQL_C_TIMESTAMP},
    {SQL_TYPE_DATE, SQL_C_DATE},
    {SQL_TYPE_TIME, SQL_C_TIME},
    {SQL_TYPE_TIMESTAMP, SQL_C_TIMESTAMP},
};

constexpr Pair kODBCTypeSize[] = {
    {SQL_C_UTINYINT, 1}, {SQL_C_STINYINT, 1},   {SQL_C_BIT, 1},
    {SQL_C_TINYINT, 1},  {SQL_C_USHORT, 2},     {SQL_C_SSHORT, 2},
    {SQL_C_SHORT, 2},    {SQL_C_ULONG, 4},      {SQL_C_SLONG, 4},
    {SQL_C_LONG, 4},     {SQL_C_FLOAT, 4},      {SQL_C_DATE, 6},
    {SQL_C_TIME, 6},     {SQL_C_TYPE_DATE, 6},  {SQL_C_TYPE_TIME, 6},
    {SQL_C_UBIGINT, 8},  {SQL_C_SBIGINT, 8},    {SQL_C_DOUBLE, 8},
    {SQL_C_GUID, 16},    {SQL_C_TIMESTAMP, 16}, {SQL_C_TYPE_TIMESTAMP, 16},
    {SQL_C_NUMERIC, 19},
};

constexpr short kNone = SHRT_MIN;

// The table spread out over the codes from its lowest to its highest one: each parameter and each
// column of every statement is looked up several times.
template <const auto& kTable>
int Map(int value, int defaultValue) {
    constexpr int lowest = std::ranges::min(kTable, {}, &Pair::From).From;
    constexpr int highest = std::ranges::max(kTable, {}, &Pair::From).From;
    static constexpr auto values = [] {
        std::array<short, static_cast<std::size_t>(highest - lowest) + 1> spread;
        spread.fill(kNone);
        for (const Pair& pair : kTable) {
            spread[static_cast<std::size_t>(pair.From - lowest)] = static_cast<short>(pair.To);
        }
        return spread;
    }();
    if (value < lowest || value > highest) return defaultValue;
    const short found = values[static_cast<std::size_t>(value - lowest)];
    return found != kNone ? found : defaultValue;
}

}  // namespace

int DbTypeToODBCType(int dbType) {
    return Map<kDbTypeToODBCType>(dbType, SQL_C_WCHAR);
}
int ODBCTypeToDbType(int odbcCType) {
    return Map<kODBCTypeToDbType>(odbcCType, DBTYPE_STRING);
}
int ODBCTypeToSQLType(int odbcCType) {
    return Map<kODBCTypeToSQLType>(odbcCType, SQL_WVARCHAR);
}
int SQLTypeToODBCType(int sqlType) {
    return Map<kSQLTypeToODBCType>(sqlType, SQL_C_WCHAR);
}
int ODBCTypeSize(int odbcCType, int defaultSize) {
    return Map<kODBCTypeSize>(odbcCType, defaultSize);
}
