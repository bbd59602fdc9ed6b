#include "sqlite/columnmemory.h"

#include <new>
#include <optional>
#include <utility>

#include "sqlite/origin.h"
#include "sqlite/sqltext.h"

namespace embedded {
namespace {

std::vector<Column> columnsOf(sqlite3_stmt* statement, std::string_view sql) {
    std::optional<bool> joinsOuter;
    std::vector<Column> columns(static_cast<size_t>(sqlite3_column_count(statement)));
    for (size_t i = 0; i < columns.size(); ++i) {
        Column& column = columns[i];
        const int index = static_cast<int>(i);
        const char* name = sqlite3_column_name(statement, index);
        if (!name) throw std::bad_alloc();
        column.name = name;
        const char* declared = sqlite3_column_decltype(statement, index);
        if (declared && isTyped(declared)) {
            column.typeName = declared;
            column.type = typeOfDeclaration(declared);
        }
        column.origin = originOf(statement, index);
        if (column.origin.column.empty()) continue;
        // As far as the statement goes; the table has its say when somebody asks.
        if (!joinsOuter) joinsOuter = mayJoinOuter(sql);
        column.nullable = *joinsOuter ? SQL_NULLABLE_UNKNOWN : SQL_NO_NULLS;
    }
    return columns;
}

}  // namespace

ColumnType typeOfStorage(int storageClass) noexcept {
    const int sqlType = storageClass == SQLITE_INTEGER ? SQL_BIGINT
                        : storageClass == SQLITE_FLOAT ? SQL_DOUBLE
                        : storageClass == SQLITE_BLOB  ? SQL_VARBINARY
                                                       : SQL_WVARCHAR;
    ColumnType type = plain(static_cast<SQLSMALLINT>(sqlType));
    type.assumed = true;
    return type;
}

std::shared_ptr<const std::vector<Column>> ColumnMemory::describe(sqlite3_stmt* statement,
                                                                  bool onRow,
                                                                  std::string_view sql) {
    const int compilations = sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_REPREPARE, 0);
    if (compilations != m_compilations) {
        m_columns = std::make_shared<std::vector<Column>>(columnsOf(statement, sql));
        m_compilations = compilations;
    }
    for (size_t i = 0; i < m_columns->size(); ++i) {
        const Column& column = (*m_columns)[i];
        if (!column.typeName.empty()) continue;
        const ColumnType type = typeOfStorage(
            onRow ? sqlite3_column_type(statement, static_cast<int>(i)) : SQLITE_NULL);
        if (type == column.type) continue;
        // What others hold stays.
        if (m_columns.use_count() > 1)
            m_columns = std::make_shared<std::vector<Column>>(*m_columns);
        (*m_columns)[i].type = type;
    }
    return m_columns;
}

}  // namespace embedded
