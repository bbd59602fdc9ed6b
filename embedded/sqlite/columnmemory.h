#pragma once

#include <sqlite3.h>

#include <memory>
#include <string_view>
#include <vector>

#include "values/column.h"

namespace embedded {

/// What of a statement's columns only changes when SQLite compiles it anew: all but the types of
/// expressions, which come from the rows.
class ColumnMemory {
  public:
    /// What the columns of `statement` are delivered as. The types of expressions come from its
    /// current row, if it stands on one (`onRow`). Executions that differ in nothing share them.
    std::shared_ptr<const std::vector<ColumnType>> types(sqlite3_stmt* statement, bool onRow);

    /// The columns of `statement`, whose text is `sql`, of the types that `types` has told. Made
    /// when somebody asks, and shared likewise.
    std::shared_ptr<const std::vector<Column>> describe(sqlite3_stmt* statement,
                                                        const std::vector<ColumnType>& types,
                                                        std::string_view sql);

  private:
    std::shared_ptr<std::vector<ColumnType>> m_types;
    std::shared_ptr<std::vector<Column>> m_columns;  ///< null until somebody asks
    int m_compilations =
        -1;  ///< how often SQLite had compiled the statement then; -1 for never asked
};

}  // namespace embedded
