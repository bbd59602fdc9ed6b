#include "sqlite/rows.h"

#include <exception>
#include <new>
#include <utility>

#include "sqlite/sqliteerror.h"

namespace embedded {
namespace {

// The value is looked up once: each question by a column's number would do so again. Nobody else
// uses the connection, whose own lock is held.
Cell cellOf(sqlite3_stmt* statement, int column) {
    Cell cell;
    sqlite3_value* const value = sqlite3_column_value(statement, column);
    const int storage = sqlite3_value_type(value);
    switch (storage) {
        case SQLITE_INTEGER:
            cell.kind = Cell::Kind::Integer;
            cell.integer = sqlite3_value_int64(value);
            break;
        case SQLITE_FLOAT:
            cell.kind = Cell::Kind::Real;
            cell.real = sqlite3_value_double(value);
            break;
        case SQLITE_TEXT:
        case SQLITE_BLOB: {
            const bool isText = storage == SQLITE_TEXT;
            cell.kind = isText ? Cell::Kind::Text : Cell::Kind::Binary;
            const void* data = isText ? sqlite3_value_text(value) : sqlite3_value_blob(value);
            const auto size = static_cast<size_t>(sqlite3_value_bytes(value));
            if (!data) {
                sqlite3_column_type(statement, column);  // lets SQLite note what it lacked
                requireMemory(statement);
            }
            cell.bytes = {data ? static_cast<const char*>(data) : "", size};
            break;
        }
        default:
            break;
    }
    return cell;
}

void append(StoredRows& rows, sqlite3_stmt* statement) {
    std::vector<Cell> row(static_cast<size_t>(rows.columnCount()));
    for (size_t i = 0; i < row.size(); ++i) row[i] = cellOf(statement, static_cast<int>(i));
    rows.append(row);
}

struct ResetAtExit {
    sqlite3_stmt* const statement;
    ~ResetAtExit() { sqlite3_reset(statement); }
};

class LiveRows final : public ResultSet {
  public:
    LiveRows(Session& session, SQLULEN timeout, CompiledSql& sql, bool onRow)
        : m_session(session),
          m_timeout(timeout),
          m_sql(sql),
          m_statement(onRow ? sql.statement.get() : nullptr),
          m_onFirst(onRow),
          m_unread(onRow) {
        if (!onRow) sqlite3_reset(sql.statement.get());
    }
    ~LiveRows() override { sqlite3_reset(m_statement); }

    int columnCount() override {
        return m_types ? static_cast<int>(m_types->size())
                       : sqlite3_column_count(m_sql.statement.get());
    }

    const ColumnType& type(int column) override { return types()[static_cast<size_t>(column)]; }

    const std::vector<Column>& columns() override {
        if (!m_columns) m_columns = m_sql.describe(types());
        return *m_columns;
    }

    bool next() override {
        if (m_failure) std::rethrow_exception(std::exchange(m_failure, nullptr));
        if (m_unread) {
            m_unread = false;
            return true;
        }
        if (!m_statement) return false;
        types();
        m_onFirst = false;
        const Session::TimeLimit limit(m_session, m_timeout);
        const int result = sqlite3_step(m_statement);
        if (result == SQLITE_ROW) return true;
        end(result);
        return false;
    }

    Ahead lookAhead() override {
        try {
            m_unread = next();
        } catch (...) {
            m_failure = std::current_exception();
        }
        return m_unread ? Ahead::Row : Ahead::End;
    }

    Cell cell(int column) override { return cellOf(m_statement, column); }

  private:
    // Those of expressions are what the first row has.
    const std::vector<ColumnType>& types() {
        if (!m_types) m_types = m_sql.types(m_onFirst);
        return *m_types;
    }

    // At the end the statement is reset at once, so that it holds no lock, and let go: from here on
    // its owner may use it for something else.
    void end(int result) {
        const ResetAtExit reset{std::exchange(m_statement, nullptr)};
        if (result != SQLITE_DONE) throw m_session.failure();
    }

    Session& m_session;
    const SQLULEN m_timeout;
    CompiledSql& m_sql;
    sqlite3_stmt* m_statement;  ///< null behind the last row
    bool m_onFirst;             ///< the statement stands on the first row
    bool m_unread;              ///< the statement stands on a row that `next` has not answered yet
    std::exception_ptr m_failure;  ///< of a step ahead
    std::shared_ptr<const std::vector<ColumnType>> m_types;
    std::shared_ptr<const std::vector<Column>> m_columns;
};

}  // namespace

std::unique_ptr<ResultSet> makeLiveRows(Session& session, SQLULEN timeout, CompiledSql& sql,
                                        bool onRow) {
    return std::make_unique<LiveRows>(session, timeout, sql, onRow);
}

SQLLEN drain(Session& session, CompiledSql& sql, std::unique_ptr<StoredRows>& rows) {
    session.requireTime();
    sqlite3_stmt* const statement = sql.statement.get();
    // One that was only kept waiting by a lock counts as running, and nothing around it can be
    // undone.
    const ResetAtExit reset{statement};
    int result = session.step(statement);
    if (!rows && (result == SQLITE_ROW || result == SQLITE_DONE) &&
        sqlite3_column_count(statement) > 0) {
        rows = std::make_unique<StoredRows>(*sql.describe(*sql.types(result == SQLITE_ROW)));
    }
    for (; result == SQLITE_ROW; result = session.step(statement)) append(*rows, statement);
    if (result != SQLITE_DONE) throw session.failure();
    return sql.effect == Effect::Change ? sqlite3_changes(session.db()) : 0;
}

}  // namespace embedded
