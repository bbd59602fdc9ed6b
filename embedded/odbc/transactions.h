#pragma once

#include <string>
#include <string_view>

#include "engine.h"
#include "odbc/scanner.h"
#include "odbc/session.h"

namespace embedded {

/// Where the transactions of a connection begin and end. What is not committed is rolled back at
/// the end.
class OdbcTransactions {
  public:
    OdbcTransactions(OdbcSession& session, CursorOwner& cursors) noexcept
        : m_session(session), m_cursors(cursors) {}
    OdbcTransactions(const OdbcTransactions&) = delete;
    OdbcTransactions& operator=(const OdbcTransactions&) = delete;
    ~OdbcTransactions();

    OdbcSession& session() const noexcept { return m_session; }

    void setAutocommit(bool on);
    void endTransaction(bool commit);
    bool hasChanges() const noexcept { return m_changed; }

    /// To be told of every statement that was executed, successful or not.
    void executed(StatementKind kind) noexcept;

    /// All or nothing, inside or outside a transaction of the application: what is not released is
    /// undone.
    class Atomic {
      public:
        explicit Atomic(OdbcTransactions& transactions);
        Atomic(const Atomic&) = delete;
        Atomic& operator=(const Atomic&) = delete;
        ~Atomic();
        void release();

      private:
        void undo() noexcept;

        OdbcTransactions& m_transactions;
        std::string m_savepoint;  ///< empty: a transaction of its own
        bool m_released = false;
    };

  private:
    void runScript(std::string_view sql);
    void driverAutocommit(bool on) const;
    void returnToAutocommit() noexcept;
    void endDriverTransaction(bool commit) const;
    bool inTransaction();

    OdbcSession& m_session;
    CursorOwner& m_cursors;
    bool m_autocommit = true;
    bool m_begun = false;    ///< a statement has opened a transaction with autocommit on
    bool m_changed = false;  ///< something was executed, with autocommit off, since the last end
    unsigned m_savepoints = 0;
};

}  // namespace embedded
