#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "engine.h"
#include "sqlite/procedure.h"
#include "sqlite/savepoint.h"
#include "sqlite/statementcache.h"

namespace embedded {

/// A statement compiled by SQLite, or one about procedures.
class SqliteProgram final : public Program {
  public:
    /// Throws an `Error` of class 42 for a mistake in the text.
    SqliteProgram(Session& session, std::string_view sql);

    int parameterCount() override;
    const std::vector<Column>& columns() override;
    int columnCount() override;
    Outcome execute(ParameterSets& sets, const ExecutionOptions&) override;
    void rewind() noexcept override;

  private:
    SqliteProgram(Session& session, std::string_view sql, CompiledStatement known);
    std::unique_ptr<ResultSet> runLive(ParameterSets& sets);
    Outcome runToEnd(ParameterSets& sets);
    SQLLEN runSets(ParameterSets& sets, std::unique_ptr<StoredRows>& rows);
    SQLLEN runSet(const ParameterSets& sets, SQLULEN set, std::unique_ptr<StoredRows>& rows,
                  std::optional<Savepoint>& savepoint);
    SQLLEN runBound(const ParameterSets& sets, std::unique_ptr<StoredRows>& rows);
    SQLLEN runProcedure(const ParameterSets& sets, std::unique_ptr<StoredRows>& rows);

    Session& m_session;
    const std::unique_ptr<ProcedureStatement> m_procedure;  ///< for a statement SQLite cannot know
    const CompiledStatement m_compiled;                     ///< or the query of its arguments
    std::shared_ptr<const std::vector<Column>> m_described;
    SQLULEN m_timeout = 0;
};

}  // namespace embedded
