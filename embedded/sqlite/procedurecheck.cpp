#include "sqlite/procedurecheck.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sql/scanner.h"
#include "sqlite/procedurecall.h"
#include "sqlite/rows.h"
#include "sqlite/savepoint.h"
#include "values/text.h"

namespace embedded {
namespace {

std::string_view firstWord(std::string_view sql) noexcept {
    return SqlScanner(sql).next().text;
}

bool isOneOf(std::string_view word, std::initializer_list<std::string_view> words) noexcept {
    return std::any_of(words.begin(), words.end(),
                       [word](std::string_view other) { return sameWord(word, other); });
}

/// The procedure's own transaction, and settings of the database, are no business of its body.
void refuseUnfit(std::string_view statement) {
    const std::string_view word = firstWord(statement);
    if (!isOneOf(word, {"BEGIN", "COMMIT", "END", "ROLLBACK", "SAVEPOINT", "RELEASE", "PRAGMA",
                        "ATTACH", "DETACH", "VACUUM", "EXPLAIN"})) {
        return;
    }
    throw Error("42000", upper(word) + " is not possible in a procedure.");
}

class Checker {
  public:
    explicit Checker(Session& session) noexcept : m_session(session) {}

    ~Checker() {
        if (m_trial) m_session.cache().clear();
    }
    Checker(const Checker&) = delete;
    Checker& operator=(const Checker&) = delete;

    void check(const ProcedureDefinition& procedure) {
        if (m_chain.size() == kMaxProcedureDepth) refuseDepth(procedure);
        if (!m_checked.insert(upper(procedure.name)).second) return;
        m_chain.push_back(&procedure);
        for (size_t i = 0; i < procedure.body.size(); ++i) {
            std::optional<ProcedureDefinition> called;
            try {
                const auto call = nestedCall(procedure.body[i]);
                called = call ? checkCall(*call, procedure) : std::nullopt;
                if (!call) checkStatement(procedure.body[i], procedure);
            } catch (const Error& error) {
                throw error.in(placeIn(procedure, i));
            }
            if (called) check(*called);
        }
        m_chain.pop_back();
    }

  private:
    /// The called procedure, unless it is being checked already.
    std::optional<ProcedureDefinition> checkCall(const ProcedureCall& call,
                                                 const ProcedureDefinition& caller) {
        const CompiledStatement arguments = m_session.cache().compile(argumentQuery(call));
        matchMarkers(arguments.get(), caller);
        const auto known = std::find_if(
            m_chain.begin(), m_chain.end(),
            [&](const ProcedureDefinition* entry) { return sameWord(entry->name, call.name); });
        if (known != m_chain.end()) {
            matchArguments(**known, call);
            return std::nullopt;
        }
        ProcedureDefinition called = loadProcedure(m_session.db(), call.name);
        matchArguments(called, call);
        return called;
    }

    void checkStatement(const std::string& statement, const ProcedureDefinition& procedure) {
        m_session.requireTime();
        refuseUnfit(statement);
        const CompiledStatement compiled = m_session.cache().compile(statement);
        matchMarkers(compiled.get(), procedure);
        if (!isOneOf(firstWord(statement), {"CREATE", "ALTER", "DROP"})) return;
        if (!m_trial) m_trial.emplace(m_session, false);
        std::unique_ptr<StoredRows> rows;
        drain(m_session, compiled.sql(), rows);
    }

    Session& m_session;
    std::vector<const ProcedureDefinition*> m_chain;  ///< each called by the one before
    std::set<std::string> m_checked;                  ///< once is enough
    std::optional<Savepoint> m_trial;                 ///< holds what is undone after the check
};

}  // namespace

void checkProcedure(Session& session, const ProcedureDefinition& procedure) {
    Checker(session).check(procedure);
}

}  // namespace embedded
