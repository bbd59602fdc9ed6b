#include "sqlite/database.h"

#include "core/error.h"
#include "sqlite/catalog.h"
#include "sqlite/origin.h"
#include "sqlite/proceduretables.h"
#include "sqlite/program.h"
#include "sqlite/regexp.h"
#include "sqlite/sqliteerror.h"

namespace embedded {
namespace {

/// For one row of PRAGMA database_list: number, name, file.
int forgetLocksOf(void* db, int, char** row, char**) noexcept {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(static_cast<sqlite3*>(db), row[1], SQLITE_FCNTL_FILE_POINTER, &file);
    if (!file || !file->pMethods) return SQLITE_OK;
    if (file->pMethods->iVersion >= 2) file->pMethods->xShmUnmap(file, 0);
    file->pMethods->xUnlock(file, SQLITE_LOCK_NONE);
    return SQLITE_OK;
}

}  // namespace

SqliteDatabase::SqliteDatabase(const SqliteOptions& options, CursorOwner& cursors)
    : m_name(options.database), m_session(options, cursors) {
    addProcedureTables(m_session.db());
    addRegexp(m_session.db());
}

std::unique_ptr<Database> openSqlite(const ConnectString& text, CursorOwner& cursors,
                                     Diagnostics& diagnostics) {
    const SqliteOptions options = readOptions(text);
    auto database = std::make_unique<SqliteDatabase>(options, cursors);
    if (!options.unknownKeys.empty()) {
        diagnostics.warning(
            "01S00", "Connection string: unknown key(s) ignored: " + options.unknownKeys + ".");
    }
    return database;
}

std::unique_ptr<Program> SqliteDatabase::prepare(std::string_view sql, SQLULEN timeout) {
    // The schema is read now if it was not, or has changed, which may wait for a lock.
    const Session::TimeLimit limit(m_session, timeout);
    try {
        return std::make_unique<SqliteProgram>(m_session, sql);
    } catch (const Error&) {
        m_session.requireTime();
        throw;
    }
}

bool SqliteDatabase::hasChanges() {
    return sqlite3_txn_state(m_session.db(), nullptr) == SQLITE_TXN_WRITE;
}

SQLSMALLINT SqliteDatabase::nullability(const Column& column) {
    if (column.origin.column.empty() || isNeverNull(m_session.db(), column.origin))
        return column.nullable;
    return SQL_NULLABLE;
}

std::unique_ptr<ResultSet> SqliteDatabase::catalog(const CatalogSearch& search) {
    return listCatalog(m_session, search);
}

void SqliteDatabase::forgetInherited() {
    sqlite3* const db = m_session.db();
    if (sqlite3_exec(db, "PRAGMA database_list", forgetLocksOf, db, nullptr) != SQLITE_OK) {
        throw sqliteError(db);
    }
}

}  // namespace embedded
