#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sqlite/procedureparser.h"
#include "sqlite/rows.h"
#include "sqlite/session.h"

namespace embedded {

/// What a statement about procedures did.
struct ProcedureResult {
    std::unique_ptr<StoredRows> rows;  ///< of the last statement that yields rows; else null
    SQLLEN changed = 0;                ///< rows changed by all statements together
};

/// A prepared CREATE PROCEDURE, DROP PROCEDURE or EXECUTE.
class ProcedureStatement {
  public:
    /// Nothing when `sql` is a statement for SQLite. Throws for a mistake in the text, and as
    /// `refresh` does.
    static std::unique_ptr<ProcedureStatement> prepare(Session& session, std::string_view sql);

    /// A query whose one row is the arguments in the order of the text: its markers are those of
    /// the statement, and SQLite gives the literals their types.
    std::string argumentQuery() const;

    /// Reads the procedure that is called as it is now; to be done before every execution. Answers
    /// whether the execution may write. Throws when there is no such procedure, or the arguments do
    /// not fit it.
    bool refresh(Session& session);

    /// Runs the statement, all of it or nothing. `arguments` is the compiled query of the
    /// arguments with its markers bound; it is reset at the end.
    ProcedureResult run(Session& session, sqlite3_stmt* arguments) const;

    bool isCall() const noexcept { return std::holds_alternative<ProcedureCall>(m_command); }

  private:
    ProcedureStatement(ProcedureCommand command, std::string_view sql)
        : m_command(std::move(command)), m_sql(sql) {}

    ProcedureResult call(Session& session, sqlite3_stmt* arguments) const;

    ProcedureCommand m_command;
    std::string m_sql;
    ProcedureDefinition m_called;  ///< of a call only
    std::vector<size_t> m_order;   ///< for each parameter the position of its argument
    bool m_writes = true;
};

}  // namespace embedded
