#pragma once

#include <sqlite3.h>

#include <memory>
#include <string_view>
#include <vector>

#include "values/column.h"

namespace embedded {

/// The type of an expression, from the SQLITE_… storage class of its first value.
ColumnType typeOfStorage(int storageClass) noexcept;

/// What of a statement's columns only changes when SQLite compiles it anew: all but the types of
/// expressions, which come from the rows.
class ColumnMemory {
  public:
    /// The columns of `statement`. The types of expressions come from its current row, if it stands
    /// on one (`onRow`); `sql` is its text. Executions that differ in nothing share one
    /// description.
    std::shared_ptr<const std::vector<Column>> describe(sqlite3_stmt* statement, bool onRow,
                                                        std::string_view sql);

  private:
    std::shared_ptr<std::vector<Column>> m_columns;
    int m_compilations =
        -1;  ///< how often SQLite had compiled the statement then; -1 for never asked
};

}  // namespace embedded
