#include "odbc/transactions.h"

#include <algorithm>
#include <utility>

#include "core/error.h"
#include "odbc/rows.h"
#include "odbc/statement.h"

namespace embedded {
namespace {

constexpr std::string_view kMark = "vorda_mark";

}  // namespace

// What is not committed is rolled back: a driver refuses to disconnect within a transaction.
OdbcTransactions::~OdbcTransactions() {
    if (m_autocommit && !m_begun && !m_session.isUnusable()) return;
    m_session.manager().SQLEndTran(SQL_HANDLE_DBC, m_session.handle().get(), SQL_ROLLBACK);
}

/// Runs what keeps or undoes the work of others, and is not the one to be cancelled.
void OdbcTransactions::run(std::string_view sql) {
    OdbcStatement statement(m_session);
    statement.isDeaf = true;
    statement.executeDirect(sql);
}

/// For what may be repeated and must succeed: a cancel that was meant for the statement before may
/// reach the server as late as now.
template <class Call>
void OdbcTransactions::insist(Call&& call) {
    constexpr int kAttempts = 3;
    for (int attempt = 1;; ++attempt) {
        try {
            return call();
        } catch (const Error& error) {
            if (attempt == kAttempts || isUndoneBy(error) || m_session.isDead()) throw;
        }
    }
}

void OdbcTransactions::driverAutocommit(bool on) const {
    const SQLULEN value = on ? SQL_AUTOCOMMIT_ON : SQL_AUTOCOMMIT_OFF;
    m_session.handle().check(m_session.manager().SQLSetConnectAttrW(
        m_session.handle().get(), SQL_ATTR_AUTOCOMMIT, reinterpret_cast<SQLPOINTER>(value),
        SQL_IS_UINTEGER));
}

/// Otherwise nothing that comes would ever be committed.
void OdbcTransactions::returnToAutocommit() noexcept {
    try {
        insist([this] { driverAutocommit(true); });
    } catch (...) {
        m_session.setUnusable();
    }
}

void OdbcTransactions::endDriverTransaction(bool commit) const {
    m_session.handle().check(m_session.manager().SQLEndTran(
        SQL_HANDLE_DBC, m_session.handle().get(), commit ? SQL_COMMIT : SQL_ROLLBACK));
}

void OdbcTransactions::setAutocommit(bool on) {
    m_session.require();
    requireMark();
    driverAutocommit(on);
    m_autocommit = on;
    m_opened = m_changed = m_settled = m_written = false;
}

void OdbcTransactions::require(StatementKind kind) {
    m_session.require();
    if (!m_lost) return;
    if (kind == StatementKind::Rollback) return;
    if (kind == StatementKind::Commit) {
        // Not every such error ends the transaction; what is left of it ends here.
        endTransaction(false);
        throw lostTransaction("40000");
    }
    throw lostTransaction("25P02");
}

bool OdbcTransactions::isUndoneBy(const Error& error) const noexcept {
    const auto codes = m_session.dialect().undone;
    return std::find(codes.begin(), codes.end(), error.native()) != codes.end();
}

void OdbcTransactions::failed(const Error& error) noexcept {
    if (!error.isFromDriver() || (!m_begun && !m_opened)) return;
    const auto states = m_session.dialect().unreadable;
    if (isUndoneBy(error) ||
        std::find(states.begin(), states.end(), error.state()) != states.end()) {
        m_lost = true;
    }
}

void OdbcTransactions::endTransaction(bool commit) {
    require(commit ? StatementKind::Commit : StatementKind::Rollback);
    if (commit) requireMark();
    m_lost = m_opened = m_settled = m_written = m_marked = false;
    if (!commit) m_cursors.closeCursors();
    const bool begun = std::exchange(m_begun, false);
    const auto end = [&] {
        if (m_autocommit && begun) {
            run(commit ? "COMMIT" : "ROLLBACK");
        } else {
            endDriverTransaction(commit);
        }
    };
    try {
        if (commit) {
            end();
        } else {
            insist(end);
        }
    } catch (const Error& error) {
        if (!commit && isUndoneBy(error)) return;
        // What the application does not want any more must not be committed later.
        if (!commit && (begun || m_changed)) m_session.setUnusable();
        throw;
    }
    m_changed = false;
}

/// Asked before anything is changed: what asks is a query, too.
bool OdbcTransactions::isNode() {
    const char* const query = m_session.dialect().isNode;
    if (!query || (m_autocommit && !m_begun)) return false;
    if (m_isNode) return *m_isNode;
    try {
        m_isNode = answersYes(query);
    } catch (const Error& error) {
        // A server that was built without this has no such variable; another failure tells nothing.
        constexpr int kUnknownVariable = 1193;
        if (error.native() == kUnknownVariable) m_isNode = false;
    }
    return m_isNode.value_or(false);
}

/// A node that undoes the transaction for another node's sake may tell nobody when that meets the
/// end of a prepared query, and then commits nothing with success. The savepoint before the query
/// is gone then.
void OdbcTransactions::mark() {
    if (!m_written || m_marked || !isNode()) return;
    run(std::string(m_session.dialect().savepoint).append(kMark));
    m_marked = true;
}

void OdbcTransactions::requireMark() {
    if (!std::exchange(m_marked, false)) return;
    try {
        run(std::string(m_session.dialect().release).append(kMark));
    } catch (const Error& error) {
        failed(error);
        if (error.state() != "42000") throw;
        m_lost = true;
        throw lostTransaction("40001");
    }
}

void OdbcTransactions::begin(StatementKind kind) {
    if (kind == StatementKind::Query) {
        mark();
    } else if (kind != StatementKind::Rollback) {
        requireMark();
    }
    if (!m_isNode) isNode();
    const char* const first = m_session.dialect().beforeSavepoint;
    if (kind != StatementKind::Savepoint || !first || m_autocommit || m_settled) return;
    run(first);
    m_settled = true;
}

void OdbcTransactions::executed(StatementKind kind) noexcept {
    m_opened = !m_autocommit;
    switch (kind) {
        case StatementKind::Begin:
            m_begun = m_autocommit;
            break;
        case StatementKind::Commit:
        case StatementKind::Rollback:
            m_begun = m_opened = m_changed = m_settled = m_lost = m_written = m_marked = false;
            break;
        case StatementKind::Other:
            if (m_session.dialect().commitsBySchemaChange) m_begun = false;
            [[fallthrough]];
        default:
            if (kind == StatementKind::Query) break;
            m_written = m_begun || !m_autocommit;
            m_changed |= !m_autocommit;
    }
}

bool OdbcTransactions::inTransaction() {
    if (!m_autocommit) return true;
    if (!m_session.dialect().inTransaction) return m_begun;
    mark();
    const bool isInTransaction = answersYes(m_session.dialect().inTransaction);
    requireMark();
    if (isInTransaction) return true;
    // What a node has undone for another node's sake it may tell to nobody.
    if (m_begun && isNode()) {
        m_lost = true;
        throw lostTransaction("40001");
    }
    return false;
}

bool OdbcTransactions::answersYes(std::string_view query) {
    auto statement = std::make_shared<OdbcStatement>(m_session);
    statement->isDeaf = true;
    statement->prepare(query);
    statement->run([&] { return statement->manager().SQLExecute(statement->get()); });
    const auto rows = makeOdbcRows(std::move(statement));
    if (!rows->next()) return false;
    const Cell answer = rows->cell(0);  // a text where the number is unsigned
    return answer.kind == Cell::Kind::Text ? answer.bytes != "0" : answer.integer != 0;
}

bool OdbcTransactions::isOpen() noexcept {
    if (!m_autocommit) return m_opened;
    try {
        return inTransaction();
    } catch (const Error& error) {
        // The server says once only that nothing is left.
        failed(error);
        return m_begun;
    } catch (...) {
        return m_begun;
    }
}

OdbcTransactions::Atomic::Atomic(OdbcTransactions& transactions) : m_transactions(transactions) {
    const Dialect& dialect = transactions.m_session.dialect();
    if (!dialect.savepointBegins && !transactions.inTransaction()) {
        transactions.driverAutocommit(false);
        return;
    }
    transactions.begin(StatementKind::Savepoint);
    m_savepoint = "vorda_" + std::to_string(++transactions.m_savepoints);
    transactions.run(dialect.savepoint + m_savepoint);
}

OdbcTransactions::Atomic::~Atomic() {
    if (!m_released) undo();
}

void OdbcTransactions::Atomic::release() {
    if (m_savepoint.empty()) {
        m_transactions.endDriverTransaction(true);
        m_released = true;
        m_transactions.returnToAutocommit();
    } else {
        if (const char* release = m_transactions.m_session.dialect().release) {
            try {
                m_transactions.run(release + m_savepoint);
            } catch (const Error& error) {
                // A node that has undone the transaction just now may know of no savepoint.
                if (error.state() != "42000") throw;
                throw Error("40003", "The savepoint of a batch is gone, with its transaction.",
                            error.native());
            }
        }
        m_released = true;
    }
}

void OdbcTransactions::Atomic::failed(const Error& error) noexcept {
    if (!m_savepoint.empty() && m_transactions.isUndoneBy(error)) m_released = true;
}

// Where nothing can be undone any more, the connection must not go on: switching autocommit on, or
// the application's COMMIT, would keep half of a batch.
void OdbcTransactions::Atomic::undo() noexcept {
    try {
        if (m_savepoint.empty()) {
            m_transactions.insist([this] { m_transactions.endDriverTransaction(false); });
            m_transactions.returnToAutocommit();
            return;
        }
        const Dialect& dialect = m_transactions.m_session.dialect();
        for (const char* verb : {dialect.rollbackTo, dialect.release}) {
            if (verb) m_transactions.insist([&] { m_transactions.run(verb + m_savepoint); });
        }
    } catch (const Error& error) {
        // One that went with all of its transaction: drivers roll back when they are cancelled
        // between two steps of theirs.
        const char* const gone = m_transactions.m_session.dialect().noSavepoint;
        m_transactions.m_lost |= !m_savepoint.empty() && gone && error.state() == gone;
        m_transactions.failed(error);
        if (!m_transactions.m_lost) m_transactions.m_session.setUnusable();
    } catch (...) {
        m_transactions.m_session.setUnusable();
    }
}

}  // namespace embedded
