#include "connection.h"

#include <algorithm>
#include <system_error>

#include "error.h"
#include "proceduretables.h"
#include "sqliteerror.h"
#include "statement.h"

namespace embedded {
namespace {

/// The file name for SQLite. A build that reads "file:" names as URIs would let one override the
/// mode; here it is a path like any other.
std::string fileName(const std::string& database) {
    return database.starts_with("file:") ? "./" + database : database;
}

/// Names the file in full, and the system's reason where SQLite only says that it cannot be opened.
Error openError(sqlite3* db, const std::string& database) {
    const int code = sqlite3_extended_errcode(db);
    if (code == SQLITE_NOMEM) throw std::bad_alloc();
    const int reason = (code & 0xFF) == SQLITE_CANTOPEN ? sqlite3_system_errno(db) : 0;
    std::string text = std::string(sqlite3_errmsg(db)) + ": '" + database + "'";
    if (reason != 0) text += ": " + std::system_category().message(reason);
    return Error::fromSqlite("08001", text, code);
}

}  // namespace

void executeScript(sqlite3* db, const char* sql) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw sqliteError(db);
}

Connection::~Connection() = default;

void Connection::open(const ConnectOptions& options) {
    if (isOpen()) throw Error("08002", "The connection is already open.", SQLITE_MISUSE);
    if (forkCount() != 0) {
        for (const auto& other : HandleRegistry::instance().all<Connection>()) {
            other->forgetInheritedLocks();
        }
    }
    sqlite3* raw = nullptr;
    // The connection's own lock serialises all use.
    const int result = sqlite3_open_v2(fileName(options.database).c_str(), &raw,
                                       options.openFlags | SQLITE_OPEN_NOMUTEX, nullptr);
    std::unique_ptr<sqlite3, CloseDatabase> db(raw);
    if (!raw) throw std::bad_alloc();
    sqlite3_extended_result_codes(raw, 1);
    if (result != SQLITE_OK) {
        throw openError(raw, options.database);
    }
    sqlite3_busy_timeout(raw, options.timeoutMs);
    // SQLite opens the file lazily; what is no database, or cannot be read, is to be known now. A
    // database that is only locked at the moment is a good one.
    const int probe = sqlite3_exec(raw, "PRAGMA schema_version", nullptr, nullptr, nullptr);
    if (probe != SQLITE_OK && (probe & 0xFF) != SQLITE_BUSY) {
        throw openError(raw, options.database);
    }
    addProcedureTables(raw);
    m_database = options.database;
    auto session = std::make_unique<Session>(std::move(db));
    const std::lock_guard lock(m_interruptMutex);
    m_session = std::move(session);
}

void Connection::close() {
    if (!isOpen()) throw Error("08003", "The connection is not open.", SQLITE_MISUSE);
    forgetInheritedLocks();
    if (!inherited()) closeUnasked();
    if (!m_autocommit && !inherited() && sqlite3_txn_state(db(), nullptr) == SQLITE_TXN_WRITE) {
        throw Error("25000", "Commit or roll back the open transaction before disconnecting.",
                    SQLITE_MISUSE);
    }
    while (m_statements) m_statements->drop();
    const std::lock_guard lock(m_interruptMutex);
    if (inherited()) static_cast<void>(m_session.release());
    m_session.reset();
}

sqlite3* Connection::db() {
    if (!isOpen()) throw Error("08003", "The connection is not open.", SQLITE_MISUSE);
    return m_session->db.get();
}

StatementCache& Connection::cache() {
    if (!isOpen()) throw Error("08003", "The connection is not open.", SQLITE_MISUSE);
    return m_session->cache;
}

SchemaGuard& Connection::guard() {
    if (!isOpen()) throw Error("08003", "The connection is not open.", SQLITE_MISUSE);
    return m_session->guard;
}

void Connection::setAutocommit(bool on) {
    if (on && !m_autocommit && isOpen()) endTransaction(true);
    m_autocommit = on;
}

void Connection::beginFor(Verb verb, bool writes) {
    // These end or open a transaction themselves, or do not work inside one.
    const bool own = verb == Verb::Transaction || verb == Verb::Rollback || verb == Verb::Pragma ||
                     verb == Verb::Service;
    if (!m_autocommit && !own && sqlite3_get_autocommit(db())) {
        executeScript(db(), writes ? "BEGIN IMMEDIATE" : "BEGIN");
    }
}

void Connection::endTransaction(bool commit) {
    closeUnasked();
    finishUndo();
    if (sqlite3_get_autocommit(db())) return;
    if (commit) {
        executeScript(db(), "COMMIT");
        return;
    }
    closeCursors();
    executeScript(db(), "ROLLBACK");
    cache().clear();
}

void Connection::undo(Undo sql) noexcept {
    m_undo = std::move(sql);
    // Some failures have ended the whole transaction already.
    const auto isDone = [this] {
        return sqlite3_get_autocommit(m_session->db.get()) ||
               sqlite3_exec(m_session->db.get(), m_undo.c_str(), nullptr, nullptr, nullptr) ==
                   SQLITE_OK;
    };
    if (!isDone()) {
        // An interruption lasts as long as any statement runs, and would stop this, too. The
        // cursors that are open are interrupted anyhow.
        closeCursors();
        if (!isDone()) return;
    }
    m_undo.clear();
}

void Connection::finishUndo() {
    if (m_undo.empty()) return;
    if (!sqlite3_get_autocommit(db())) executeScript(db(), m_undo.c_str());
    m_undo.clear();
}

void Connection::closeCursors() noexcept {
    for (Statement* statement = m_statements; statement; statement = statement->next) {
        statement->closeCursor();
    }
}

void Connection::forgetInheritedLocks() {
    const std::lock_guard lock(m_interruptMutex);
    if (inherited()) forgetLocks(m_session->db.get());
}

void Connection::interrupt() noexcept {
    const std::lock_guard lock(m_interruptMutex);
    if (m_session) sqlite3_interrupt(m_session->db.get());
}

void Connection::attach(Statement& statement) noexcept {
    statement.next = m_statements;
    if (m_statements) m_statements->previous = &statement;
    m_statements = &statement;
}

void Connection::detach(Statement& statement) noexcept {
    removeUnasked(statement);
    if (statement.next) statement.next->previous = statement.previous;
    (statement.previous ? statement.previous->next : m_statements) = statement.next;
    statement.next = nullptr;
    statement.previous = nullptr;
}

void Connection::removeUnasked(Statement& statement) noexcept {
    m_unasked.erase(std::remove(m_unasked.begin(), m_unasked.end(), &statement), m_unasked.end());
}

void Connection::closeUnasked() noexcept {
    while (!m_unasked.empty()) {
        Statement& statement = *m_unasked.back();
        m_unasked.pop_back();
        statement.closeCursor();
    }
}

}  // namespace embedded
