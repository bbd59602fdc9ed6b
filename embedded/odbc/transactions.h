#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engine.h"
#include "odbc/session.h"
#include "odbc/sqltext.h"

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
    /// Whether a transaction is open, by a statement's doing or the driver's.
    bool isOpen() noexcept;

    /// To be asked before a statement is sent. Throws where driver or server have rolled the
    /// application's transaction back and it does not know yet: what comes would be committed
    /// without what came before. Ending the transaction ends that, a COMMIT with an error.
    void require(StatementKind kind);
    /// To be told that a statement is about to be executed.
    void begin(StatementKind kind);
    /// To be told of every statement that was executed, successful or not.
    void executed(StatementKind kind) noexcept;
    /// To be told of those that were successful, before that.
    void succeeded(StatementKind kind) noexcept { m_settled |= kind != StatementKind::Savepoint; }
    /// To be told of every failure, after that.
    void failed(const Error& error) noexcept;
    /// Whether nothing is left of the transaction that `error` came in.
    bool isUndoneBy(const Error& error) const noexcept;

    /// All or nothing, inside or outside a transaction of the application: what is not released is
    /// undone.
    class Atomic {
      public:
        explicit Atomic(OdbcTransactions& transactions);
        Atomic(const Atomic&) = delete;
        Atomic& operator=(const Atomic&) = delete;
        ~Atomic();
        void release();
        /// To be told of a failure: a savepoint that went with it is not gone back to.
        void failed(const Error& error) noexcept;

      private:
        void undo() noexcept;

        OdbcTransactions& m_transactions;
        std::string m_savepoint;  ///< empty: a transaction of its own
        bool m_released = false;
    };

  private:
    void run(std::string_view sql);
    template <class Call>
    void insist(Call&& call);
    void driverAutocommit(bool on) const;
    void returnToAutocommit() noexcept;
    void endDriverTransaction(bool commit) const;
    bool inTransaction();
    bool answersYes(std::string_view query);
    bool isNode();
    void mark();
    void requireMark();

    OdbcSession& m_session;
    CursorOwner& m_cursors;
    bool m_autocommit = true;
    bool m_begun = false;    ///< a statement has opened a transaction with autocommit on
    bool m_changed = false;  ///< something was executed, with autocommit off, since the last end
    bool m_opened = false;   ///< anything was
    bool m_settled = false;  ///< something other than a savepoint has succeeded
    bool m_lost = false;     ///< driver or server have rolled it back
    bool m_written = false;  ///< something that is no query was executed in the transaction
    bool m_marked = false;   ///< a savepoint of our own stands behind that
    std::optional<bool> m_isNode;  ///< whether other nodes change data, too; asked once
    unsigned m_savepoints = 0;
};

}  // namespace embedded
