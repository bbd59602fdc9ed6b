// One connection to the runtime: its handles, the lock that makes its calls come one at a time, the
// statements that are kept prepared, and cancelling what runs.
#pragma once

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "dbapi/connecting.h"
#include "dbapi/failure.h"
#include "dbapi/statementcache.h"
#include "dbapi/waiting.h"

// The runtime's structure for a function that is called in the middle of its calls.
struct Progress {
    int (*look)(void* context);
    void* context;
};

class Link {
  public:
    // Takes over a connection that was made with this autocommit.
    Link(Connecting& made, bool autocommit, long timeout);
    // Rolls back and disconnects, unless that was done or a parent process owns the connection.
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Exclusive use, for as long as it lives; taken under the interpreter lock, which others get
    // while it is waited for. Throws for a connection that is closed, inherited through a fork, or
    // in use further up in this thread.
    class Turn {
      public:
        explicit Turn(Link& link);
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

      private:
        Link& m_link;
        const bool m_isWithin;  // what keeps others out
    };

    // A batch of this thread, whose transaction that thread cannot end before the batch does.
    class Batch {
      public:
        explicit Batch(Link& link);
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;

      private:
        friend class Link;
        Link& m_link;
        const Batch* const m_outer;
    };
    bool IsInBatch() const;  // of this thread
    void RefuseInBatch() const;

    // Keeps other threads out from one turn to the next, for what is done in several.
    void KeepOthersOut();
    void LetOthersIn();
    bool KeepsOut() const { return IsThisThread(m_keeper); }
    // Whether this thread has the turn.
    bool HasTurn() const { return IsThisThread(m_owner); }

    // For the holder of a turn: runs `call`, which may wait, without the interpreter lock. Ends
    // with what it throws, or with the exception of a signal's handler.
    template <class Call>
    void Wait(SQLHSTMT statement, Call&& call) {
        const Running running(*this, statement);
        if (m_isUndoing) {
            const Unlocked unlocked;
            call();
            return;
        }
        if (m_isWatched) {
            WaitWatched(call);
            return;
        }
        // A file's engine that cannot be looked into answers soon.
        if (m_database.isSqlite || !InMainThread()) {
            const Unlocked unlocked;
            call();
            return;
        }
        std::exception_ptr thrown;
        const std::function<void()> work = [&] {
            try {
                call();
            } catch (...) {
                thrown = std::current_exception();
            }
        };
        WaitCancellably(work, [this] { Cancel(); });
        if (thrown) std::rethrow_exception(thrown);
    }

    // Ends what runs, if anything does. For any thread, without the interpreter lock.
    void Cancel();

    // Waits for its turn, and commits or rolls back.
    void Commit(bool keep);
    // For the holder of a turn, as all that follows up to Close. Rolling back ends open results.
    void EndTransaction(bool keep);
    void SetAutocommit(bool on);
    // Has a transaction be open on SQLite, which would begin one with the next change only.
    void BeginOnSqlite();
    // Throws where another statement has ended that, in the middle of a batch.
    void RefuseLostBatch();
    // A point in the transaction to come back to, and doing so, or keeping what came behind it.
    void SetSavepoint();
    void ReleaseSavepoint(bool keep);
    // What did not go well is undone: behind the savepoint, or the whole transaction, after which
    // each statement is one again. Nothing interrupts it; what fails is tried again by FinishUndo,
    // before anything else is executed.
    enum class Undone { Nothing, Savepoint, Transaction };
    void Undo(Undone what) noexcept;
    void FinishUndo();
    // Waits for its turn, rolls back and disconnects. Open results are over.
    void Close();

    bool IsOpen() const { return m_database.connection != nullptr; }
    bool IsInherited() const { return m_database.IsInherited(); }
    void RefuseInherited() const;
    bool Autocommit() const { return m_autocommit; }
    bool InTransaction();
    // Something was executed that a commit would keep.
    void Touch() { m_touched = true; }
    const Database& Behind() const { return m_database; }
    void SetTimeout(long seconds) { std::atomic_ref(m_database.timeout) = seconds; }

    // A prepared statement that nobody uses, or a new one, always so without a text; for the holder
    // of a turn.
    std::unique_ptr<Statement> TakeStatement(PyObject* text);
    // Takes a statement back at any time, its result with it; under the interpreter lock.
    void GiveBack(std::unique_ptr<Statement> statement) noexcept;

  private:
    // Notes what runs, for Cancel.
    class Running {
      public:
        Running(Link& link, SQLHSTMT statement) : m_link(link) { m_link.NoteRunning(statement); }
        ~Running() { m_link.NoteRunning(nullptr); }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

      private:
        Link& m_link;
    };

    // With a runtime that looks in at us in the middle of its calls.
    template <class Call>
    void WaitWatched(Call&& call) {
        bool raised = false;
        try {
            Watched watched;
            m_watched = &watched;
            // What it throws when a handler has raised is our own doing.
            const auto end = [&] {
                m_watched = nullptr;
                raised = watched.HasRaised();
            };
            try {
                call();
            } catch (...) {
                end();
                throw;
            }
            end();
        } catch (...) {
            if (!raised) throw;
        }
        if (raised) throw PythonError();
    }
    static int LookIn(void* link);
    // A thread finds its own number in there if it has written that, and else another or none:
    // nothing has to come before or behind.
    using Thread = std::atomic<unsigned long>;
    static bool IsThisThread(const Thread& thread) {
        const unsigned long number = thread.load(std::memory_order_relaxed);
        return number != 0 && number == PyThread_get_thread_ident();
    }
    static void Set(Thread& thread, unsigned long number) {
        thread.store(number, std::memory_order_relaxed);
    }

    // Not behind a driver, which has a transaction begin by itself.
    bool IsSqliteItself() const { return m_database.isSqlite && m_isWatched; }
    void Enter();
    void NoteRunning(SQLHSTMT statement);
    void FreeHandles();
    void Run(const char* sql, bool canBeCancelled = true);
    void TakeIn(std::unique_ptr<Statement> statement) noexcept;
    void TakeInWaiting() noexcept;

    SQLHENV m_environment;
    Database m_database;
    bool m_autocommit;
    bool m_touched = false;
    bool m_isWatched = false;
    Watched* m_watched = nullptr;  // in the middle of a call
    const Progress m_progress{LookIn, this};

    std::mutex m_mutex;
    Thread m_owner = 0;   // the one that has the turn
    Thread m_keeper = 0;  // the one that keeps others out
    int m_batches = 0;    // of all threads; under the interpreter lock
    Undone m_toUndo = Undone::Nothing;
    bool m_isUndoing = false;
    std::mutex m_runningMutex;
    SQLHSTMT m_running = nullptr;

    StatementCache m_idle;
    std::vector<std::unique_ptr<Statement>> m_waiting;  // given back during another's turn
    std::vector<Statement*> m_taken;
};
