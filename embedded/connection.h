#pragma once

#include <sqlite3.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "connectstring.h"
#include "fork.h"
#include "handle.h"
#include "schemaguard.h"
#include "statementcache.h"

namespace embedded {

class Environment;
class Statement;

/// Runs statements without parameters or rows on `db`; throws an `Error`.
void executeScript(sqlite3* db, const char* sql);

/// A connection handle and, while it is open, an SQLite database.
///
/// Its lock serialises all calls on it and on its statements; SQLite itself then needs none.
class Connection final : public Handle {
  public:
    static constexpr SQLSMALLINT kHandleType = SQL_HANDLE_DBC;

    explicit Connection(SQLHANDLE environment) noexcept
        : Handle(kHandleType), m_environment(environment) {}
    ~Connection();

    std::mutex& mutex() noexcept { return m_mutex; }
    SQLHANDLE environment() const noexcept { return m_environment; }

    bool isOpen() const noexcept { return m_session != nullptr; }
    void open(const ConnectOptions& options);

    /// Whether the database was opened by the process from which this one was forked. SQLite must
    /// not be called with it then: the locks and the transaction are the parent's, and even to
    /// close it would undo in the file what the parent is doing there.
    bool inherited() const noexcept { return m_session && m_session->forks != forkCount(); }

    /// Frees all statements, rolls an open transaction back and closes the database. Throws 25000
    /// when autocommit is off and changes are neither committed nor rolled back. An inherited
    /// database is left alone, and what belongs to it stays in memory.
    void close();

    /// The open database; throws 08003 when there is none.
    sqlite3* db();
    StatementCache& cache();
    SchemaGuard& guard();
    const std::string& database() const noexcept { return m_database; }

    bool autocommit() const noexcept { return m_autocommit; }

    /// Switching autocommit on commits an open transaction.
    void setAutocommit(bool on);

    /// With autocommit off, opens a transaction before a statement of kind `verb` unless one is
    /// open; one that may write at once if `writes` says so.
    void beginFor(Verb verb, bool writes);

    /// Commits or rolls back the open transaction, if there is one, however it was begun. Rolling
    /// back closes all cursors.
    void endTransaction(bool commit);

    /// SQL that takes back what a failed statement has done; empty for nothing.
    using Undo = std::string;

    /// Undoes now, or if that fails before the next statement that runs. What was to be undone
    /// earlier lies within it.
    void undo(Undo sql) noexcept;

    /// Undoes what is still to be undone; throws when it cannot be, and then nothing may run.
    void finishUndo();

    unsigned nextSavepoint() noexcept { return ++m_savepoints; }

    /// Closes the cursors of all statements.
    void closeCursors() noexcept;

    /// Forgets the locks of an inherited database, before another one is opened.
    void forgetInheritedLocks();

    /// Interrupts what is running. Callable from any thread, without the connection's lock.
    void interrupt() noexcept;

    // For statements only: their list, and the ones whose rows nobody has asked about yet.
    void attach(Statement& statement) noexcept;
    void detach(Statement& statement) noexcept;
    void addUnasked(Statement& statement) { m_unasked.push_back(&statement); }
    void removeUnasked(Statement& statement) noexcept;

    /// Closes the cursors nobody has asked about. Applications run statements that yield rows just
    /// for their effect and never free them; such a statement must not hold the database.
    void closeUnasked() noexcept;

  private:
    struct CloseDatabase {
        void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
    };
    struct Session {
        const unsigned forks = forkCount();
        explicit Session(std::unique_ptr<sqlite3, CloseDatabase> opened)
            : db(std::move(opened)), cache(db.get()) {
            guard.install(db.get());
        }
        SchemaGuard guard;
        std::unique_ptr<sqlite3, CloseDatabase> db;
        StatementCache cache;  // destroyed first: its statements belong to the database
    };

    std::mutex m_mutex;
    std::mutex m_interruptMutex;  ///< keeps the database open while others than the owner use it
    const SQLHANDLE m_environment;
    std::unique_ptr<Session> m_session;
    std::string m_database;
    bool m_autocommit = true;
    unsigned m_savepoints = 0;
    Undo m_undo;
    Statement* m_statements = nullptr;  ///< head of the list of all statements
    std::vector<Statement*> m_unasked;
};

}  // namespace embedded
