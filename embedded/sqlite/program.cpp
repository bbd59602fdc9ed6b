#include "sqlite/program.h"

#include <optional>
#include <utility>

#include "core/error.h"
#include "sqlite/bind.h"
#include "sqlite/rows.h"
#include "sqlite/savepoint.h"
#include "sqlite/session.h"
#include "sqlite/sqliteerror.h"

namespace embedded {
namespace {

/// Leaves a statement that was run to its end, or failed, reset and without values: the values are
/// the application's memory, and a statement that is not reset may hold locks.
class Rewind {
  public:
    explicit Rewind(sqlite3_stmt* statement) noexcept : m_statement(statement) {}
    Rewind(const Rewind&) = delete;
    Rewind& operator=(const Rewind&) = delete;
    ~Rewind() {
        if (!m_statement) return;
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
    void cancel() noexcept { m_statement = nullptr; }

  private:
    sqlite3_stmt* m_statement;
};

bool mayChangeSchema(Effect effect) noexcept {
    return effect >= Effect::Schema && effect != Effect::Transaction && effect != Effect::Commit;
}

}  // namespace

SqliteProgram::SqliteProgram(Session& session, std::string_view sql)
    : SqliteProgram(session, sql, session.cache().find(sql)) {}

// A text that SQLite has compiled before is none about procedures.
SqliteProgram::SqliteProgram(Session& session, std::string_view sql, CompiledStatement known)
    : m_session(session),
      m_procedure(known ? nullptr : ProcedureStatement::prepare(session, sql)),
      m_compiled(known         ? std::move(known)
                 : m_procedure ? session.cache().compile(m_procedure->argumentQuery())
                               : session.cache().compileNew(sql)) {}

int SqliteProgram::parameterCount() {
    return sqlite3_bind_parameter_count(m_compiled.get());
}

// Those of a procedure are known when it has been executed.
int SqliteProgram::columnCount() {
    return m_procedure ? 0 : sqlite3_column_count(m_compiled.get());
}

const std::vector<Column>& SqliteProgram::columns() {
    static const std::vector<Column> kNone;
    if (m_procedure) return kNone;
    if (!m_described) m_described = m_compiled.sql().describe(*m_compiled.sql().types(false));
    return *m_described;
}

void SqliteProgram::rewind() noexcept {
    sqlite3_clear_bindings(m_compiled.get());
}

Outcome SqliteProgram::execute(ParameterSets& sets, const ExecutionOptions& options) {
    const CompiledSql& sql = m_compiled.sql();
    m_described.reset();
    m_session.requireTime();
    m_session.finishUndo();
    if (m_session.endsLost(sql.effect)) return {};
    const Session::Statement statement(m_session, sql.effect);
    const bool writes = m_procedure && m_procedure->refresh(m_session);
    if (m_procedure || !sql.readOnly) m_session.beginFor(sql.effect, writes);
    // What changes data is run to its end at once: nobody may come to read its rows. So are
    // pragmas, which change things, too, and have few rows.
    const bool live = !m_procedure && sql.readOnly && sql.effect != Effect::Pragma &&
                      sqlite3_column_count(m_compiled.get()) > 0;
    Outcome outcome;
    m_timeout = options.timeout;
    const Session::TimeLimit limit(m_session, m_timeout);
    if (live) {
        outcome.rows = runLive(sets);
    } else {
        outcome = runToEnd(sets);
    }
    if (mayChangeSchema(sql.effect)) m_session.cache().clear();
    return outcome;
}

std::unique_ptr<ResultSet> SqliteProgram::runLive(ParameterSets& sets) {
    if (sets.count() > 1) {
        throw notSupported("A query cannot be executed with several parameter sets.");
    }
    sqlite3_stmt* statement = m_compiled.get();
    Rewind rewind(statement);
    bindSet(statement, sets, 0, BufferLife::Copied, nullptr);
    const int result = sqlite3_step(statement);
    if (result != SQLITE_ROW && result != SQLITE_DONE) throw m_session.failure();
    sets.allSucceeded();
    auto rows = makeLiveRows(m_session, m_timeout, m_compiled.sql(), result == SQLITE_ROW);
    rewind.cancel();
    return rows;
}

Outcome SqliteProgram::runToEnd(ParameterSets& sets) {
    std::unique_ptr<StoredRows> rows;
    const Rewind rewind(m_compiled.get());
    const SQLLEN changed = runSets(sets, rows);
    const bool isCall = m_procedure && m_procedure->isCall();
    Outcome outcome;
    if (isCall ? !rows : m_compiled.sql().effect == Effect::Change) outcome.changed = changed;
    outcome.nothingDone = !rows && !isCall && outcome.changed == 0;
    if (m_compiled.sql().inserts && changed > 0) {
        outcome.lastRow = sqlite3_last_insert_rowid(m_session.db());
    }
    outcome.rows = std::move(rows);
    return outcome;
}

SQLLEN SqliteProgram::runSets(ParameterSets& sets, std::unique_ptr<StoredRows>& rows) {
    std::optional<Savepoint> savepoint;
    if (sets.count() > 1) savepoint.emplace(m_session, m_procedure != nullptr);
    SQLLEN changed = 0;
    for (SQLULEN set = 0; set < sets.count(); ++set) {
        try {
            changed += runSet(sets, set, rows, savepoint);
        } catch (const Error& error) {
            throw sets.failed(set, error);
        }
    }
    if (savepoint) savepoint->release();
    sets.allSucceeded();
    return changed;
}

SQLLEN SqliteProgram::runSet(const ParameterSets& sets, SQLULEN set,
                             std::unique_ptr<StoredRows>& rows,
                             std::optional<Savepoint>& savepoint) {
    DecimalWatch& decimals = m_session.decimals();
    bindSet(m_compiled.get(), sets, set, BufferLife::Execution, &decimals);
    const bool watches =
        decimals.isNeeded() && (m_procedure || m_compiled.sql().effect == Effect::Change);
    if (!watches) return runBound(sets, rows);
    if (!savepoint) savepoint.emplace(m_session, m_procedure != nullptr);
    const DecimalWatch::Watching watching(decimals);
    const SQLLEN changed = runBound(sets, rows);
    decimals.check();
    return changed;
}

SQLLEN SqliteProgram::runBound(const ParameterSets& sets, std::unique_ptr<StoredRows>& rows) {
    if (m_procedure) return runProcedure(sets, rows);
    // VACUUM copies tables that nobody else may write.
    std::optional<SchemaGuard::Lifted> lifted;
    if (m_compiled.sql().effect == Effect::Service) lifted.emplace(m_session.guard());
    return drain(m_session, m_compiled.sql(), rows);
}

SQLLEN SqliteProgram::runProcedure(const ParameterSets& sets, std::unique_ptr<StoredRows>& rows) {
    ProcedureResult result = m_procedure->run(m_session, m_compiled.get());
    if (result.rows && sets.count() > 1) {
        throw notSupported(
            "A procedure that yields rows cannot be executed with several parameter sets.");
    }
    rows = std::move(result.rows);
    return result.changed;
}

}  // namespace embedded
