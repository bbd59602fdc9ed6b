#pragma once

#include <sql.h>
#include <sqlext.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "columntype.h"
#include "origin.h"

namespace embedded {

/// The description of one result column.
struct Column {
    std::string name;
    ColumnType type;
    std::string typeName;  ///< as declared; empty for an expression
    SQLSMALLINT nullable = SQL_NULLABLE_UNKNOWN;
    Origin origin;
};

/// What of a statement's columns only changes when SQLite compiles it anew: all but the types of
/// expressions, which come from the rows.
class ColumnMemory {
  public:
    /// The columns of `statement`. The types of expressions come from its current row, if it stands
    /// on one (`onRow`).
    std::vector<Column> describe(sqlite3_stmt* statement, bool onRow);

  private:
    std::vector<Column> m_columns;
    int m_compilations =
        -1;  ///< how often SQLite had compiled the statement then; -1 for never asked
};

}  // namespace embedded
