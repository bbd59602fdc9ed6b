#pragma once

#include <sqlite3.h>

#include <memory>

#include "core/resultset.h"
#include "sqlite/session.h"
#include "sqlite/statementcache.h"

namespace embedded {

/// Rows that SQLite computes as they are read. The compiled statement, which the owner keeps, has
/// been stepped once: `onRow` says whether that gave a row. Resets it at the end. `timeout` is
/// for the step to a row.
std::unique_ptr<ResultSet> makeLiveRows(Session& session, SQLULEN timeout, CompiledSql& sql,
                                        bool onRow);

/// Runs a compiled statement with its values bound to its end and resets it. Appends its rows, if
/// it has columns, to `rows`, which the first time is made. Answers the number of rows changed; 0
/// for a statement that counts none.
SQLLEN drain(Session& session, CompiledSql& sql, std::unique_ptr<StoredRows>& rows);

}  // namespace embedded
