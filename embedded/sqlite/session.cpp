#include "sqlite/session.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <system_error>
#include <thread>

#include "sqlite/sqliteerror.h"

namespace embedded {
namespace {

/// Steps of SQLite's machine between two looks whether a call is to end: some microseconds.
constexpr int kStepsBetweenLooks = 1000;

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

auto Session::openFile(const SqliteOptions& options) -> std::unique_ptr<sqlite3, Close> {
    sqlite3* raw = nullptr;
    // The connection's own lock serialises all use.
    const int result = sqlite3_open_v2(fileName(options.database).c_str(), &raw,
                                       options.openFlags | SQLITE_OPEN_NOMUTEX, nullptr);
    std::unique_ptr<sqlite3, Close> db(raw);
    if (!raw) throw std::bad_alloc();
    sqlite3_extended_result_codes(raw, 1);
    if (result != SQLITE_OK) {
        throw openError(raw, options.database);
    }
    // SQLite opens the file lazily; what is no database, or cannot be read, is to be known now. A
    // database that is only locked at the moment is a good one, and not waited for.
    const int probe = sqlite3_exec(raw, "PRAGMA schema_version", nullptr, nullptr, nullptr);
    if (probe != SQLITE_OK && (probe & 0xFF) != SQLITE_BUSY) {
        throw openError(raw, options.database);
    }
    return db;
}

Session::Session(const SqliteOptions& options, CursorOwner& cursors)
    : m_cursors(cursors),
      m_db(openFile(options)),
      m_cache(m_db.get(), m_guard),
      m_decimals(m_db.get()),
      m_lockTimeout(options.timeoutMs) {
    m_guard.install(db());
    sqlite3_busy_handler(db(), waitForLock, this);
    sqlite3_rollback_hook(db(), isRolledBack, this);
    // Not sqlite3_interrupt: it would stop whatever else is read on the connection, too, and is
    // lost between two statements.
    sqlite3_progress_handler(db(), kStepsBetweenLooks, endsEarly, this);
}

void Session::run(const char* sql) {
    if (sqlite3_exec(db(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw failure();
}

// ---- transactions

void Session::setAutocommit(bool on) {
    if (on && !m_autocommit) endTransaction(true);
    m_autocommit = on;
}

void Session::beginFor(Effect effect, bool writes) {
    // The others end or open a transaction themselves, or do not work inside one.
    if (!m_autocommit && effect <= Effect::Schema && sqlite3_get_autocommit(db())) {
        run(writes ? "BEGIN IMMEDIATE" : "BEGIN");
    }
}

// Interrupts, full disks, failing files and want of memory end the application's transaction with
// the statement; and so do its own OR ROLLBACK and RAISE, which it knows of. With autocommit on, a
// BEGIN of its own is missed by its COMMIT.
void Session::isRolledBack(void* session) noexcept {
    auto& self = *static_cast<Session*>(session);
    self.m_lost |= !self.m_autocommit && !sqlite3_get_autocommit(self.db());
}

bool Session::endsLost(Effect effect) {
    if (!m_lost) return false;
    if (effect != Effect::Rollback && effect != Effect::Commit) throw lostTransaction("25P02");
    endTransaction(effect == Effect::Commit);
    return true;
}

void Session::endTransaction(bool commit) {
    finishUndo();
    const bool isOpen = !sqlite3_get_autocommit(db());
    const bool lost = std::exchange(m_lost, false);
    // With autocommit off, queries alone, which open none here, are part of a transaction, too.
    if (!commit && (isOpen || !m_autocommit)) m_cursors.closeCursors();
    if (lost && commit) throw lostTransaction("40000");
    if (!isOpen) return;
    run(commit ? "COMMIT" : "ROLLBACK");
    m_lost = false;
    if (!commit) m_cache.clear();
}

void Session::undo(Undo sql) noexcept {
    m_undo = std::move(sql);
    m_undoing = true;
    // Some failures have ended the whole transaction already.
    if (sqlite3_get_autocommit(db()) ||
        sqlite3_exec(db(), m_undo.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK) {
        m_undo.clear();
    }
    m_undoing = false;
}

void Session::finishUndo() {
    if (m_undo.empty()) return;
    const bool lost = m_lost;
    if (!sqlite3_get_autocommit(db())) run(m_undo.c_str());
    m_lost = lost;
    m_undo.clear();
}

// ---- ending a call early

int Session::endsEarly(void* session) noexcept {
    auto& self = *static_cast<Session*>(session);
    if (self.m_undoing || (self.m_stepping && !sqlite3_stmt_busy(self.m_stepping))) return 0;
    if (self.m_progress && self.m_progress->look(self.m_progress->context) != 0) return 1;
    return self.m_interrupted || self.isOverdue();
}

int Session::step(sqlite3_stmt* statement) noexcept {
    m_stepping = statement;
    const int result = sqlite3_step(statement);
    m_stepping = nullptr;
    return result;
}

int Session::waitForLock(void* session, int attempt) noexcept {
    using std::chrono::milliseconds;
    static constexpr int kPauses[] = {1, 2, 5, 10, 15, 20, 25, 25, 25, 50, 50, 100};
    auto& self = *static_cast<Session*>(session);
    const auto now = Clock::now();
    if (attempt == 0) self.m_waitingSince = now;
    const auto left = self.m_waitingSince + self.m_lockTimeout - now;
    if (endsEarly(session) || left <= Clock::duration::zero()) return 0;
    const auto index = std::min(static_cast<size_t>(attempt), std::size(kPauses) - 1);
    std::this_thread::sleep_for(std::min<Clock::duration>(milliseconds(kPauses[index]), left));
    return 1;
}

std::optional<Error> Session::endOfCall() const {
    if (m_interrupted) return Error::fromSqlite("HY008", "interrupted", SQLITE_INTERRUPT);
    if (isOverdue()) {
        return Error("HYT00", "The query timeout has passed.", SQLITE_INTERRUPT);
    }
    return std::nullopt;
}

void Session::requireTime() {
    if (m_undoing || (!m_interrupted && !m_deadline)) return;
    if (const auto error = endOfCall()) throw *error;
}

Error Session::failure() {
    const int primary = sqlite3_errcode(db()) & 0xFF;
    if (primary == SQLITE_CONSTRAINT) m_lost = false;
    if (primary == SQLITE_INTERRUPT || primary == SQLITE_BUSY) {
        if (auto error = endOfCall()) return *error;
    }
    return sqliteError(db());
}

}  // namespace embedded
