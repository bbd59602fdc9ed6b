#include "resultset.h"

#include <new>
#include <optional>
#include <utility>

#include "sqliteerror.h"
#include "sqlscanner.h"
#include "text.h"

namespace embedded {
namespace {

bool isNeverNull(sqlite3* db, const Origin& origin) {
    int notNull = 0;
    int primaryKey = 0;
    const char* declared = nullptr;
    if (sqlite3_table_column_metadata(db, origin.schema.c_str(), origin.table.c_str(),
                                      origin.column.c_str(), &declared, nullptr, &notNull,
                                      &primaryKey, nullptr) != SQLITE_OK) {
        return false;
    }
    if (notNull) return true;
    return primaryKey && declared && sameWord(declared, "INTEGER") &&
           sameWord(rowNumberColumn(db, origin.schema, origin.table), origin.column);
}

Cell cellOf(sqlite3_stmt* statement, int column) {
    Cell cell;
    cell.type = sqlite3_column_type(statement, column);
    switch (cell.type) {
        case SQLITE_INTEGER:
            cell.integer = sqlite3_column_int64(statement, column);
            break;
        case SQLITE_FLOAT:
            cell.real = sqlite3_column_double(statement, column);
            break;
        case SQLITE_TEXT:
        case SQLITE_BLOB: {
            const void* data = cell.type == SQLITE_TEXT ? sqlite3_column_text(statement, column)
                                                        : sqlite3_column_blob(statement, column);
            const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
            if (!data && size > 0) throw std::bad_alloc();
            cell.bytes = {data ? static_cast<const char*>(data) : "", size};
            break;
        }
        default:
            break;
    }
    return cell;
}

class LiveRows final : public ResultSet {
  public:
    LiveRows(sqlite3_stmt* statement, bool onRow) : m_statement(statement), m_unread(onRow) {
        if (!onRow) sqlite3_reset(m_statement);
    }
    ~LiveRows() override { sqlite3_reset(m_statement); }

    const std::vector<Column>& columns() override {
        if (!m_columns) m_columns = describeColumns(m_statement, m_unread);
        return *m_columns;
    }

    int columnCount() const override {
        return m_columns ? static_cast<int>(m_columns->size()) : sqlite3_column_count(m_statement);
    }

    bool next() override {
        if (m_unread) {
            m_unread = false;
            return true;
        }
        if (!m_statement) return false;
        // A statement reset in the beginning must not start over.
        const int result = sqlite3_stmt_busy(m_statement) ? sqlite3_step(m_statement) : SQLITE_DONE;
        if (result == SQLITE_ROW) return true;
        end(result);
        return false;
    }

    Cell cell(int column) const override { return cellOf(m_statement, column); }

  private:
    // At the end the statement is reset at once, so that it holds no lock, and let go: from here on
    // its owner may use it for something else.
    void end(int result) {
        sqlite3_stmt* const statement = std::exchange(m_statement, nullptr);
        if (result == SQLITE_DONE) {
            sqlite3_reset(statement);
            return;
        }
        const Error error = sqliteError(sqlite3_db_handle(statement));
        sqlite3_reset(statement);
        throw error;
    }

    sqlite3_stmt* m_statement;  ///< null behind the last row
    bool m_unread;              ///< the statement stands on a row that `next` has not answered yet
    std::optional<std::vector<Column>> m_columns;
};

}  // namespace

std::vector<Column> describeColumns(sqlite3_stmt* statement, bool onRow) {
    const int count = sqlite3_column_count(statement);
    std::vector<Column> columns(static_cast<size_t>(count));
    std::optional<bool> outer;
    for (int i = 0; i < count; ++i) {
        Column& column = columns[static_cast<size_t>(i)];
        const char* name = sqlite3_column_name(statement, i);
        if (!name) throw std::bad_alloc();
        column.name = name;
        const char* declared = sqlite3_column_decltype(statement, i);
        if (declared && isTyped(declared)) {
            column.typeName = declared;
            column.type = typeOfDeclaration(declared);
        } else {
            column.type = typeOfStorage(onRow ? sqlite3_column_type(statement, i) : SQLITE_NULL);
        }
        column.origin = originOf(statement, i);
        if (column.origin.column.empty()) continue;
        column.nullable = SQL_NULLABLE;
        if (isNeverNull(sqlite3_db_handle(statement), column.origin)) {
            if (!outer) outer = mayJoinOuter(sqlite3_sql(statement));
            column.nullable = *outer ? SQL_NULLABLE_UNKNOWN : SQL_NO_NULLS;
        }
    }
    return columns;
}

std::unique_ptr<ResultSet> makeLiveRows(sqlite3_stmt* statement, bool onRow) {
    return std::make_unique<LiveRows>(statement, onRow);
}

void StoredRows::append(sqlite3_stmt* statement) {
    std::vector<Cell> row(m_columns.size());
    for (size_t i = 0; i < row.size(); ++i) row[i] = cellOf(statement, static_cast<int>(i));
    append(std::move(row));
}

void StoredRows::append(std::vector<Cell> row) {
    std::vector<Value> values;
    values.reserve(row.size());
    for (const Cell& cell : row) values.push_back({cell, std::string(cell.bytes)});
    m_rows.push_back(std::move(values));
}

bool StoredRows::next() {
    if (m_current <= m_rows.size()) ++m_current;
    return m_current <= m_rows.size();
}

Cell StoredRows::cell(int column) const {
    const Value& value = m_rows[m_current - 1][static_cast<size_t>(column)];
    Cell cell = value.cell;
    cell.bytes = value.bytes;
    return cell;
}

}  // namespace embedded
