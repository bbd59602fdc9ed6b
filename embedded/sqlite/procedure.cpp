#include "sqlite/procedure.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/error.h"
#include "core/message.h"
#include "sqlite/procedurecall.h"
#include "sqlite/procedurecheck.h"
#include "sqlite/procedurestore.h"
#include "sqlite/savepoint.h"
#include "sqlite/sqliteerror.h"
#include "values/text.h"

namespace embedded {
namespace {

struct FreeValue {
    void operator()(sqlite3_value* value) const noexcept { sqlite3_value_free(value); }
};

/// Arguments, exactly as SQLite holds them.
using Values = std::vector<std::unique_ptr<sqlite3_value, FreeValue>>;

/// The columns `order` of the one row that the query `arguments` gives; resets it.
Values readArguments(sqlite3_stmt* arguments, const std::vector<size_t>& order) {
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> rewind(arguments, sqlite3_reset);
    if (sqlite3_step(arguments) != SQLITE_ROW) throw sqliteError(sqlite3_db_handle(arguments));
    Values values;
    values.reserve(order.size());  // no growth may lose a value that has no owner yet
    for (const size_t column : order) {
        values.emplace_back(
            sqlite3_value_dup(sqlite3_column_value(arguments, static_cast<int>(column))));
        if (!values.back()) throw std::bad_alloc();
    }
    return values;
}

void bindMarkers(sqlite3_stmt* statement, const ProcedureDefinition& procedure,
                 const Values& values) {
    int marker = 0;
    for (const size_t index : matchMarkers(statement, procedure)) {
        if (sqlite3_bind_value(statement, ++marker, values[index].get()) != SQLITE_OK) {
            throw sqliteError(sqlite3_db_handle(statement));
        }
    }
}

class Runner {
  public:
    explicit Runner(Session& session) noexcept : m_session(session) {}

    void run(const ProcedureDefinition& procedure, const Values& values) {
        if (m_depth == kMaxProcedureDepth) refuseDepth(procedure);
        ++m_depth;
        for (size_t i = 0; i < procedure.body.size(); ++i) {
            std::optional<std::pair<ProcedureDefinition, Values>> called;
            try {
                const auto call = nestedCall(procedure.body[i]);
                if (call) {
                    called = prepareCall(*call, procedure, values);
                } else {
                    runStatement(procedure.body[i], procedure, values);
                }
            } catch (const Error& error) {
                throw error.in(placeIn(procedure, i));
            }
            if (called) run(called->first, called->second);
        }
        --m_depth;
    }

    ProcedureResult result;

  private:
    std::pair<ProcedureDefinition, Values> prepareCall(const ProcedureCall& call,
                                                       const ProcedureDefinition& caller,
                                                       const Values& values) {
        ProcedureDefinition called = loadProcedure(m_session.db(), call.name);
        const CompiledStatement arguments = m_session.cache().compile(argumentQuery(call));
        bindMarkers(arguments.get(), caller, values);
        Values passed = readArguments(arguments.get(), matchArguments(called, call));
        return {std::move(called), std::move(passed)};
    }

    void runStatement(const std::string& statement, const ProcedureDefinition& procedure,
                      const Values& values) {
        const CompiledStatement compiled = m_session.cache().compile(statement);
        bindMarkers(compiled.get(), procedure, values);
        std::unique_ptr<StoredRows> rows;
        result.changed += drain(m_session, compiled.sql(), rows);
        if (rows) result.rows = std::move(rows);
        if (compiled.sql().effect == Effect::Schema) m_session.cache().clear();
    }

    Session& m_session;
    size_t m_depth = 0;
};

/// What cannot be compiled says in its turn what is wrong with it.
bool onlyReads(StatementCache& cache, const std::string& statement) {
    try {
        return cache.compile(statement).sql().readOnly;
    } catch (const Error&) {
        return false;
    }
}

/// Whether a statement of `procedure`, or of one that it calls, may write. `readers` are those that
/// are known not to.
bool mayWrite(Session& session, const ProcedureDefinition& procedure,
              std::set<std::string>& readers, size_t depth = 0) {
    if (depth == kMaxProcedureDepth) refuseDepth(procedure);
    session.requireTime();
    for (const std::string& statement : procedure.body) {
        if (const auto call = nestedCall(statement)) {
            if (!readers.contains(upper(call->name)) &&
                mayWrite(session, loadProcedure(session.db(), call->name), readers, depth + 1)) {
                return true;
            }
            continue;
        }
        if (!onlyReads(session.cache(), statement)) return true;
    }
    readers.insert(upper(procedure.name));
    return false;
}

void create(Session& session, const ProcedureDefinition& procedure, const std::string& sql) {
    Savepoint savepoint(session, true);
    if (!procedure.replaces && storedProcedure(session.db(), procedure.name)) {
        throw Error("42S01", "There is a procedure " + inQuotes(procedure.name) + " already.");
    }
    checkProcedure(session, procedure);
    session.finishUndo();  // of the check
    storeProcedure(session, {procedure.name, sql});
    savepoint.release();
}

void drop(Session& session, const ProcedureRemoval& removal) {
    if (storedProcedure(session.db(), removal.name)) {
        removeProcedure(session, removal.name);
    } else if (!removal.ifExists) {
        throw Error("42S02", "There is no procedure " + inQuotes(removal.name) + ".");
    }
}

}  // namespace

std::unique_ptr<ProcedureStatement> ProcedureStatement::prepare(Session& session,
                                                                std::string_view sql) {
    auto command = parseProcedureCommand(sql);
    if (!command) return nullptr;
    const std::string_view text = sql.substr(0, sql.find_last_not_of('\0') + 1);
    std::unique_ptr<ProcedureStatement> statement(
        new ProcedureStatement(std::move(*command), trimmed(text)));
    statement->refresh(session);
    return statement;
}

bool ProcedureStatement::refresh(Session& session) {
    if (const auto* called = std::get_if<ProcedureCall>(&m_command)) {
        m_called = loadProcedure(session.db(), called->name);
        m_order = matchArguments(m_called, *called);
        std::set<std::string> readers;
        m_writes = mayWrite(session, m_called, readers);
    }
    return m_writes;
}

std::string ProcedureStatement::argumentQuery() const {
    const auto* called = std::get_if<ProcedureCall>(&m_command);
    return embedded::argumentQuery(called ? *called : ProcedureCall{});
}

ProcedureResult ProcedureStatement::call(Session& session, sqlite3_stmt* arguments) const {
    Savepoint savepoint(session, m_writes);
    const Values values = readArguments(arguments, m_order);
    Runner runner(session);
    runner.run(m_called, values);
    savepoint.release();
    return std::move(runner.result);
}

ProcedureResult ProcedureStatement::run(Session& session, sqlite3_stmt* arguments) const {
    try {
        if (isCall()) return call(session, arguments);
        if (const auto* definition = std::get_if<ProcedureDefinition>(&m_command)) {
            create(session, *definition, m_sql);
        } else {
            drop(session, std::get<ProcedureRemoval>(m_command));
        }
        return {};
    } catch (...) {
        // What was compiled against a schema that is undone is to be forgotten.
        session.cache().clear();
        throw;
    }
}

}  // namespace embedded
