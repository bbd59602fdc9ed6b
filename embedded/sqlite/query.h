#pragma once

#include <sqlite3.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace embedded {

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};

using OwnedStatement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

/// A statement of the runtime's own, run once. Throws what SQLite says when it fails.
class Query {
  public:
    /// Markers take `values` in turn; they must outlive the query.
    Query(sqlite3* db, const std::string& sql, std::initializer_list<std::string_view> values = {});

    /// Moves to the next row; false when there is none any more.
    bool next();

    int columnCount() const noexcept { return sqlite3_column_count(m_statement.get()); }

    /// The value in a column of the current row as a text; nothing for NULL.
    std::optional<std::string> value(int column) const;
    std::string text(int column) const { return value(column).value_or(""); }

    sqlite3_stmt* get() const noexcept { return m_statement.get(); }

  private:
    OwnedStatement m_statement;
};

}  // namespace embedded
