#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "core/error.h"
#include "engine.h"
#include "extensions.h"
#include "sqlite/decimals.h"
#include "sqlite/options.h"
#include "sqlite/schemaguard.h"
#include "sqlite/statementcache.h"

namespace embedded {

/// A connection to an SQLite file or to a database in memory, and what belongs to it as a whole:
/// its compiled statements, its transaction, and what ends a call early.
class Session {
  public:
    /// Throws an `Error` that names the file when it cannot be opened. `cursors` must outlive the
    /// session.
    Session(const SqliteOptions& options, CursorOwner& cursors);

    sqlite3* db() noexcept { return m_db.get(); }
    StatementCache& cache() noexcept { return m_cache; }
    SchemaGuard& guard() noexcept { return m_guard; }
    DecimalWatch& decimals() noexcept { return m_decimals; }

    /// Runs statements without parameters or rows; throws an `Error`.
    void run(const char* sql);

    // ---- transactions

    void setAutocommit(bool on);

    /// Commits or rolls back the open transaction, if there is one, however it was begun.
    void endTransaction(bool commit);

    /// With autocommit off, opens a transaction before a statement with this effect unless one is
    /// open; one that may write at once if `writes` says so. Not before one that only reads, which
    /// would keep others from writing for as long as nobody commits.
    void beginFor(Effect effect, bool writes);

    bool isOpen() const noexcept { return m_lost || !sqlite3_get_autocommit(m_db.get()); }

    /// To be asked before a statement. Throws where a failure has ended the application's whole
    /// transaction and it does not know yet: what comes would be kept without what came before.
    /// Ending it ends that, a COMMIT with an error; answers whether that is done.
    bool endsLost(Effect effect);

    /// While a statement is executed: only a transaction that was open before it can be lost.
    class Statement {
      public:
        Statement(Session& session, Effect effect) noexcept
            : m_session(session),
              m_loses(effect < Effect::Commit && !sqlite3_get_autocommit(session.db())) {
            session.m_lost = false;
        }
        Statement(const Statement&) = delete;
        Statement& operator=(const Statement&) = delete;
        ~Statement() { m_session.m_lost &= m_loses; }

      private:
        Session& m_session;
        const bool m_loses;  ///< if all is rolled back, something was there before
    };

    /// SQL that takes back what a failed statement has done; empty for nothing.
    using Undo = std::string;

    /// Undoes now, or if that fails before the next statement that runs. What was to be undone
    /// earlier lies within it.
    void undo(Undo sql) noexcept;

    /// Undoes what is still to be undone; throws when it cannot be, and then nothing may run.
    void finishUndo();

    unsigned nextSavepoint() noexcept { return ++m_savepoints; }

    // ---- ending a call early

    /// Ends the call that is running, at its next step or while it waits for a lock. For any
    /// thread.
    void interrupt() noexcept { m_interrupted = true; }
    void forgetInterrupt() noexcept { m_interrupted = false; }
    void setProgress(const VordaProgress* progress) noexcept { m_progress = progress; }

    /// Ends what runs while it exists when `seconds` are over; 0 for no limit.
    class TimeLimit {
      public:
        TimeLimit(Session& session, SQLULEN seconds) : m_session(session) {
            if (seconds != 0) m_session.m_deadline = Clock::now() + atMost(seconds);
        }
        TimeLimit(const TimeLimit&) = delete;
        TimeLimit& operator=(const TimeLimit&) = delete;
        ~TimeLimit() { m_session.m_deadline.reset(); }

      private:
        static std::chrono::seconds atMost(SQLULEN seconds) noexcept {
            constexpr SQLULEN kLongest = 1'000'000'000;  // no clock counts to the largest numbers
            return std::chrono::seconds(std::min(seconds, kLongest));
        }
        Session& m_session;
    };

    /// Throws when the call is to end. To be asked before every statement of a call that runs
    /// several: SQLite looks only while one is running.
    void requireTime();

    /// sqlite3_step for a statement that changes something. SQLite still asks whether to end early
    /// when all is done, and committed: then nothing ends.
    int step(sqlite3_stmt* statement) noexcept;

    /// The last failure, told as an interruption or a timeout where one of them was its cause.
    Error failure();

  private:
    using Clock = std::chrono::steady_clock;

    struct Close {
        void operator()(sqlite3* db) const noexcept { sqlite3_close_v2(db); }
    };

    static std::unique_ptr<sqlite3, Close> openFile(const SqliteOptions& options);
    static int endsEarly(void* session) noexcept;
    static int waitForLock(void* session, int attempt) noexcept;
    static void isRolledBack(void* session) noexcept;
    std::optional<Error> endOfCall() const;
    bool isOverdue() const noexcept { return m_deadline && Clock::now() >= *m_deadline; }

    CursorOwner& m_cursors;
    SchemaGuard m_guard;  // outlives the database, which asks it
    const std::unique_ptr<sqlite3, Close> m_db;
    StatementCache m_cache;  // destroyed before the database its statements belong to
    DecimalWatch m_decimals;
    bool m_autocommit = true;
    unsigned m_savepoints = 0;
    bool m_lost = false;  ///< the transaction was rolled back, unasked
    Undo m_undo;
    bool m_undoing = false;  ///< which nothing ends early
    std::atomic<bool> m_interrupted = false;
    sqlite3_stmt* m_stepping = nullptr;  ///< by `step`
    const VordaProgress* m_progress = nullptr;
    std::optional<Clock::time_point> m_deadline;
    const std::chrono::milliseconds m_lockTimeout;
    Clock::time_point m_waitingSince;  ///< for a lock
};

}  // namespace embedded
