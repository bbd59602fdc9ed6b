#pragma once

#include <bitset>
#include <ctime>
#include <mutex>
#include <string>
#include <utility>

#include "core/connectstring.h"
#include "core/diagnostics.h"
#include "odbc/dialect.h"
#include "odbc/drivermanager.h"

namespace embedded {

/// A connection to a data source, what is known of the server and its driver, and which statement
/// is running.
class OdbcSession {
  public:
    /// Connects; throws the driver's words. A warning goes to `diagnostics`. `loginTimeout` is the
    /// driver's, in seconds; 0: none.
    OdbcSession(const ConnectString& text, Diagnostics& diagnostics, SQLULEN loginTimeout);
    OdbcSession(const OdbcSession&) = delete;
    OdbcSession& operator=(const OdbcSession&) = delete;

    const OdbcHandle& handle() const noexcept { return m_connection; }
    const DriverManager& manager() const noexcept { return m_manager; }
    const Dialect& dialect() const noexcept { return *m_dialect; }
    const DriverQuirks& quirks() const noexcept { return *m_quirks; }

    /// Whether SQLGetData reads bound columns again, from their start.
    bool rereadsBound() const noexcept { return m_rereadsBound; }

    /// Whether this day of any year may have been today, somewhere, since the session began.
    bool mayBeToday(int month, int day) noexcept;

    std::string textInfo(SQLUSMALLINT type) const;
    SQLUINTEGER numberInfo(SQLUSMALLINT type) const;
    std::string catalogName() const { return textInfo(SQL_DATABASE_NAME); }

    bool isDead() const;

    /// Gives the connection up: nobody knows what would be kept of what is done on it.
    void setUnusable() noexcept { m_unusable = true; }
    bool isUnusable() const noexcept { return m_unusable; }

    /// Throws when it is unusable.
    void require() const;

    /// Throws when it is lost, of which `error` of the driver does not tell.
    void requireAfter(const Error& error) const;

    /// Cancels the statement that is running. Callable from any thread.
    void interrupt() noexcept;

    /// Marks a statement, while it runs, as the one that `interrupt` cancels.
    class Running {
      public:
        Running(OdbcSession& session, SQLHSTMT statement) : m_session(session) { set(statement); }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        ~Running() { end(); }
        /// Answers whether it was cancelled, or its batch before it began.
        bool end() noexcept { return set(SQL_NULL_HSTMT); }

      private:
        bool set(SQLHSTMT statement) noexcept {
            const std::lock_guard lock(m_session.m_runningMutex);
            m_session.m_running = statement;
            return statement == SQL_NULL_HSTMT && std::exchange(m_session.m_wasInterrupted, false);
        }
        OdbcSession& m_session;
    };

    /// Executions of one batch, which `interrupt` reaches between two of them, too.
    class Batch {
      public:
        explicit Batch(OdbcSession& session) : m_session(session) { set(true); }
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
        ~Batch() { set(false); }

      private:
        void set(bool on) noexcept {
            const std::lock_guard lock(m_session.m_runningMutex);
            m_session.m_inBatch = on;
            m_session.m_wasInterrupted = false;
        }
        OdbcSession& m_session;
    };

  private:
    void connect(const std::string& text, bool narrow, Diagnostics& diagnostics);

    const DriverManager& m_manager;
    const OdbcHandle m_environment;
    const OdbcHandle m_connection;
    const Dialect* m_dialect = nullptr;
    const DriverQuirks* m_quirks = nullptr;
    bool m_rereadsBound = false;
    bool m_unusable = false;
    std::time_t m_nextDay;
    std::bitset<512> m_days;  ///< of all years, that have been today
    std::mutex m_runningMutex;
    SQLHSTMT m_running = SQL_NULL_HSTMT;
    bool m_inBatch = false;
    bool m_wasInterrupted = false;  ///< what runs was
};

}  // namespace embedded
