#include "sqlite/columnmemory.h"

#include <new>
#include <optional>
#include <utility>

#include "sqlite/origin.h"
#include "sqlite/sqltext.h"

namespace embedded {
namespace {

std::vector<Column> columnsOf(sqlite3_stmt* statement, const std::vector<ColumnType>& types,
                              std::string_view sql) {
    std::optional<bool> joinsOuter;
    std::vector<Column> columns(types.size());
    for (size_t i = 0; i < columns.size(); ++i) {
        Column& column = columns[i];
        column.type = types[i];
        const int index = static_cast<int>(i);
        const char* name = sqlite3_column_name(statement, index);
        if (!name) throw std::bad_alloc();
        column.name = name;
        const char* declared = sqlite3_column_decltype(statement, index);
        if (declared && isTyped(declared)) column.typeName = declared;
        column.origin = originOf(statement, index);
        if (column.origin.column.empty()) continue;
        // As far as the statement goes; the table has its say when somebody asks.
        if (!joinsOuter) joinsOuter = mayJoinOuter(sql);
        column.nullable = *joinsOuter ? SQL_NULLABLE_UNKNOWN : SQL_NO_NULLS;
    }
    return columns;
}

/// The type of an expression, from the SQLITE_… storage class of its first value.
ColumnType typeOfStorage(int storageClass) noexcept {
    const int sqlType = storageClass == SQLITE_INTEGER ? SQL_BIGINT
                        : storageClass == SQLITE_FLOAT ? SQL_DOUBLE
                        : storageClass == SQLITE_BLOB  ? SQL_VARBINARY
                                                       : SQL_WVARCHAR;
    ColumnType type = plain(static_cast<SQLSMALLINT>(sqlType));
    type.assumed = true;
    return type;
}

/// As declared; those of expressions are yet to be told.
std::vector<ColumnType> typesOf(sqlite3_stmt* statement) {
    std::vector<ColumnType> types(static_cast<size_t>(sqlite3_column_count(statement)));
    for (size_t i = 0; i < types.size(); ++i) {
        const char* declared = sqlite3_column_decltype(statement, static_cast<int>(i));
        const bool typed = declared && isTyped(declared);
        types[i] = typed ? typeOfDeclaration(declared) : typeOfStorage(SQLITE_NULL);
    }
    return types;
}

/// What others hold stays.
template <class T>
std::vector<T>& changed(std::shared_ptr<std::vector<T>>& shared) {
    if (shared.use_count() > 1) shared = std::make_shared<std::vector<T>>(*shared);
    return *shared;
}

}  // namespace

std::shared_ptr<const std::vector<ColumnType>> ColumnMemory::types(sqlite3_stmt* statement,
                                                                   bool onRow) {
    const int compilations = sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_REPREPARE, 0);
    if (compilations != m_compilations) {
        m_types = std::make_shared<std::vector<ColumnType>>(typesOf(statement));
        m_columns.reset();
        m_compilations = compilations;
    }
    for (size_t i = 0; i < m_types->size(); ++i) {
        if (!(*m_types)[i].assumed) continue;
        const ColumnType type = typeOfStorage(
            onRow ? sqlite3_column_type(statement, static_cast<int>(i)) : SQLITE_NULL);
        if (type != (*m_types)[i]) changed(m_types)[i] = type;
    }
    return m_types;
}

std::shared_ptr<const std::vector<Column>> ColumnMemory::describe(
    sqlite3_stmt* statement, const std::vector<ColumnType>& types, std::string_view sql) {
    if (!m_columns)
        m_columns = std::make_shared<std::vector<Column>>(columnsOf(statement, types, sql));
    for (size_t i = 0; i < m_columns->size(); ++i) {
        if (types[i] != (*m_columns)[i].type) changed(m_columns)[i].type = types[i];
    }
    return m_columns;
}

}  // namespace embedded
