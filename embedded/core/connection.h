#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/fork.h"
#include "core/handle.h"
#include "engine.h"

namespace embedded {

/// What a connection does with its statements, which link themselves into its list.
class Attached {
  public:
    /// Closes the cursor, if there is one. A prepared statement can be executed again.
    virtual void closeCursor() noexcept = 0;

    /// The same for rows that nobody has asked about and that now make way for something else.
    virtual void overtake() noexcept = 0;

    /// Ends the handle: takes it out of its connection and of the registry.
    virtual void drop() noexcept = 0;

    // Links of the connection's list.
    Attached* next = nullptr;
    Attached* previous = nullptr;

  protected:
    ~Attached() = default;
};

/// How far a call is that another thread may interrupt.
enum class Call : char { None, Running, Interrupted };

/// A connection handle and, while it is open, a database of one of the engines.
///
/// Its lock serialises all calls on it and on its statements; an engine then needs none.
class Connection final : public Handle, private CursorOwner {
  public:
    static constexpr SQLSMALLINT kHandleType = SQL_HANDLE_DBC;

    explicit Connection(SQLHANDLE environment) noexcept
        : Handle(kHandleType), m_environment(environment) {}
    ~Connection();

    std::mutex& mutex() noexcept { return m_mutex; }
    SQLHANDLE environment() const noexcept { return m_environment; }

    SQLULEN loginTimeout = 0;  ///< seconds after which the driver may give up connecting; 0: none

    bool opensFilesOnly = false;

    bool isOpen() const noexcept { return m_database != nullptr; }
    /// False, and nothing done, for a driver's data source where only files are wanted.
    bool open(std::string_view text);

    /// Whether the database was opened by the process from which this one was forked. Its engine
    /// must not be called then: the locks, the socket and the transaction are the parent's, and
    /// even to close it would undo what the parent is doing there.
    bool inherited() const noexcept { return m_database && m_forks != forkCount(); }

    /// Frees all statements, rolls an open transaction back and closes the database. Throws 25000
    /// when autocommit is off and changes are neither committed nor rolled back. An inherited
    /// database is left alone, and what belongs to it stays in memory.
    void close();

    /// The open database; throws 08003 when there is none.
    Database& database();

    bool autocommit() const noexcept { return m_autocommit; }

    /// Switching autocommit on commits an open transaction.
    void setAutocommit(bool on);

    /// Commits or rolls back the open transaction, if there is one, however it was begun. Rolling
    /// back closes all cursors.
    void endTransaction(bool commit);

    /// Closes the cursors of all statements.
    void closeCursors() noexcept override;

    /// Interrupts `call`, which is one on this connection, if it is running. Callable from any
    /// thread, without the connection's lock.
    void interrupt(std::atomic<Call>& call) noexcept;

    /// The interrupted call is over.
    void forgetInterrupt() noexcept;

    // For statements only: their list, and the ones whose rows nobody has asked about yet.
    void attach(Attached& statement) noexcept;
    void detach(Attached& statement) noexcept;
    void addUnasked(Attached& statement) { m_unasked.push_back(&statement); }
    void removeUnasked(Attached& statement) noexcept;

    /// Closes the cursors nobody has asked about. Applications run statements that yield rows just
    /// for their effect and never free them; such a statement must not hold the database.
    void closeUnasked() noexcept;

  private:
    void forgetInherited();

    std::mutex m_mutex;
    std::mutex m_interruptMutex;  ///< keeps the database open while others than the owner use it
    const SQLHANDLE m_environment;
    std::unique_ptr<Database> m_database;
    unsigned m_forks = 0;  ///< when it was opened
    bool m_autocommit = true;
    Attached* m_statements = nullptr;  ///< head of the list of all statements
    std::vector<Attached*> m_unasked;
};

}  // namespace embedded
