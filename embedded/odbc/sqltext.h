#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "odbc/dialect.h"
#include "sql/scanner.h"

namespace embedded {

/// A statement with every marker written "?", as drivers want it.
struct MarkedSql {
    std::string text;
    std::vector<int> numbers;  ///< for every "?" the number of its parameter, from 1
    int parameters = 0;        ///< the largest number
};

/// `sql` with its markers "@1", "@2", … and "?" rewritten. A "?" counts on from the largest number
/// so far. Throws 07009 for a number beyond 65535, and 42000 for a marker "@1" within a
/// dollar-quoted string.
MarkedSql markedSql(std::string_view sql, const Dialect& dialect);

/// `sql` with every marker written as "@1 ", "@2 ", …, so that its parts may change places. Throws
/// as `markedSql`.
std::string numberedSql(std::string_view sql, const Dialect& dialect);

/// Whether one of the statements in `sql` is one that `pattern` describes.
bool isUnreadable(std::string_view sql, const UnreadableStatement& pattern,
                  const Dialect& dialect) noexcept;

/// What a statement does to the rows and to the transaction, by its first words.
enum class StatementKind {
    Other,
    Change,     ///< INSERT, UPDATE, DELETE, REPLACE, MERGE, or WITH
    Query,      ///< SELECT and what else leaves everything as it is
    Begin,      ///< BEGIN, START TRANSACTION
    Commit,     ///< COMMIT, END
    Rollback,   ///< ROLLBACK, ABORT
    Savepoint,  ///< SAVEPOINT, RELEASE, ROLLBACK TO
};

StatementKind kindOfStatement(std::string_view sql, const Dialect& dialect) noexcept;

}  // namespace embedded
