#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>

#include "engine.h"
#include "sqlite/options.h"
#include "sqlite/schemaguard.h"
#include "sqlite/sqlscanner.h"
#include "sqlite/statementcache.h"

namespace embedded {

/// Runs statements without parameters or rows on `db`; throws an `Error`.
void executeScript(sqlite3* db, const char* sql);

/// A database in an SQLite file or in memory.
class SqliteDatabase final : public Database {
  public:
    SqliteDatabase(const SqliteOptions& options, CursorOwner& cursors);

    sqlite3* db() noexcept { return m_db.get(); }
    StatementCache& cache() noexcept { return m_cache; }
    SchemaGuard& guard() noexcept { return m_guard; }

    std::unique_ptr<Program> prepare(std::string_view sql) override;
    void setAutocommit(bool on) override;
    void endTransaction(bool commit) override;
    bool hasChanges() override;
    std::unique_ptr<ResultSet> tables(const CatalogSearch& search) override;
    std::unique_ptr<ResultSet> columns(const CatalogSearch& search) override;
    std::string catalogName() override { return m_name; }
    bool isReadOnly() override { return sqlite3_db_readonly(db(), "main") == 1; }
    bool isDead() override { return false; }
    std::optional<Information> information(SQLUSMALLINT type) override;
    void interrupt() noexcept override { sqlite3_interrupt(db()); }

    /// Makes SQLite forget the locks of a database that was opened before a fork. They stayed with
    /// the parent, but SQLite's notes about them are copied to the child: they would make it read a
    /// file that it opens anew without a lock. Touches no file.
    void forgetInherited() override;

    /// With autocommit off, opens a transaction before a statement of kind `verb` unless one is
    /// open; one that may write at once if `writes` says so.
    void beginFor(Verb verb, bool writes);

    /// SQL that takes back what a failed statement has done; empty for nothing.
    using Undo = std::string;

    /// Undoes now, or if that fails before the next statement that runs. What was to be undone
    /// earlier lies within it.
    void undo(Undo sql) noexcept;

    /// Undoes what is still to be undone; throws when it cannot be, and then nothing may run.
    void finishUndo();

    unsigned nextSavepoint() noexcept { return ++m_savepoints; }

  private:
    struct Close {
        void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
    };

    static std::unique_ptr<sqlite3, Close> openFile(const SqliteOptions& options);

    CursorOwner& m_cursors;
    const std::string m_name;
    SchemaGuard m_guard;  // outlives the database, which asks it
    const std::unique_ptr<sqlite3, Close> m_db;
    StatementCache m_cache;  // destroyed first: its statements belong to the database
    bool m_autocommit = true;
    unsigned m_savepoints = 0;
    Undo m_undo;
};

/// The engine's entry.
std::unique_ptr<Database> openSqlite(const ConnectString& text, CursorOwner& cursors,
                                     Diagnostics& diagnostics);

}  // namespace embedded
