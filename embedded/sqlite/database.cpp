#include "sqlite/database.h"

#include <new>
#include <system_error>

#include "core/error.h"
#include "sqlite/catalog.h"
#include "sqlite/proceduretables.h"
#include "sqlite/program.h"
#include "sqlite/sqliteerror.h"

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

/// For one row of PRAGMA database_list: number, name, file.
int forgetLocksOf(void* db, int, char** row, char**) noexcept {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(static_cast<sqlite3*>(db), row[1], SQLITE_FCNTL_FILE_POINTER, &file);
    if (!file || !file->pMethods) return SQLITE_OK;
    if (file->pMethods->iVersion >= 2) file->pMethods->xShmUnmap(file, 0);
    file->pMethods->xUnlock(file, SQLITE_LOCK_NONE);
    return SQLITE_OK;
}

std::string listOf(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) list += (list.empty() ? "" : ", ") + name;
    return list;
}

}  // namespace

void executeScript(sqlite3* db, const char* sql) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw sqliteError(db);
}

auto SqliteDatabase::openFile(const SqliteOptions& options) -> std::unique_ptr<sqlite3, Close> {
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
    sqlite3_busy_timeout(raw, options.timeoutMs);
    // SQLite opens the file lazily; what is no database, or cannot be read, is to be known now. A
    // database that is only locked at the moment is a good one.
    const int probe = sqlite3_exec(raw, "PRAGMA schema_version", nullptr, nullptr, nullptr);
    if (probe != SQLITE_OK && (probe & 0xFF) != SQLITE_BUSY) {
        throw openError(raw, options.database);
    }
    addProcedureTables(raw);
    return db;
}

SqliteDatabase::SqliteDatabase(const SqliteOptions& options, CursorOwner& cursors)
    : m_cursors(cursors), m_name(options.database), m_db(openFile(options)), m_cache(m_db.get()) {
    m_guard.install(m_db.get());
}

std::unique_ptr<Database> openSqlite(const ConnectString& text, CursorOwner& cursors,
                                     Diagnostics& diagnostics) {
    const SqliteOptions options = readOptions(text);
    auto database = std::make_unique<SqliteDatabase>(options, cursors);
    if (!options.unknownKeys.empty()) {
        diagnostics.warning("01S00", "Connection string: unknown key(s) ignored: " +
                                         listOf(options.unknownKeys) + ".");
    }
    return database;
}

std::unique_ptr<Program> SqliteDatabase::prepare(std::string_view sql) {
    return std::make_unique<SqliteProgram>(*this, sql);
}

void SqliteDatabase::setAutocommit(bool on) {
    if (on && !m_autocommit) endTransaction(true);
    m_autocommit = on;
}

bool SqliteDatabase::hasChanges() {
    return sqlite3_txn_state(db(), nullptr) == SQLITE_TXN_WRITE;
}

std::unique_ptr<ResultSet> SqliteDatabase::tables(const CatalogSearch& search) {
    return listTables(db(), search);
}

std::unique_ptr<ResultSet> SqliteDatabase::columns(const CatalogSearch& search) {
    return listColumns(db(), search);
}

void SqliteDatabase::beginFor(Verb verb, bool writes) {
    // These end or open a transaction themselves, or do not work inside one.
    const bool own = verb == Verb::Transaction || verb == Verb::Rollback || verb == Verb::Pragma ||
                     verb == Verb::Service;
    if (!m_autocommit && !own && sqlite3_get_autocommit(db())) {
        executeScript(db(), writes ? "BEGIN IMMEDIATE" : "BEGIN");
    }
}

void SqliteDatabase::endTransaction(bool commit) {
    finishUndo();
    if (sqlite3_get_autocommit(db())) return;
    if (commit) {
        executeScript(db(), "COMMIT");
        return;
    }
    m_cursors.closeCursors();
    executeScript(db(), "ROLLBACK");
    m_cache.clear();
}

void SqliteDatabase::undo(Undo sql) noexcept {
    m_undo = std::move(sql);
    // Some failures have ended the whole transaction already.
    const auto isDone = [this] {
        return sqlite3_get_autocommit(db()) ||
               sqlite3_exec(db(), m_undo.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    };
    if (!isDone()) {
        // An interruption lasts as long as any statement runs, and would stop this, too. The
        // cursors that are open are interrupted anyhow.
        m_cursors.closeCursors();
        if (!isDone()) return;
    }
    m_undo.clear();
}

void SqliteDatabase::finishUndo() {
    if (m_undo.empty()) return;
    if (!sqlite3_get_autocommit(db())) executeScript(db(), m_undo.c_str());
    m_undo.clear();
}

void SqliteDatabase::forgetInherited() {
    if (sqlite3_exec(db(), "PRAGMA database_list", forgetLocksOf, db(), nullptr) != SQLITE_OK) {
        throw sqliteError(db());
    }
}

}  // namespace embedded
