#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "engine.h"
#include "odbc/dialect.h"
#include "odbc/drivermanager.h"
#include "odbc/scanner.h"

namespace embedded {

class IdleStatements;

/// A data source of the ODBC driver manager.
class OdbcDatabase final : public Database {
  public:
    /// Connects; throws the driver's words.
    OdbcDatabase(const ConnectString& text, CursorOwner& cursors, Diagnostics& diagnostics);
    ~OdbcDatabase() override;

    std::unique_ptr<Program> prepare(std::string_view sql) override;
    void setAutocommit(bool on) override;
    void endTransaction(bool commit) override;
    bool hasChanges() override { return m_changed && !isDead(); }
    std::unique_ptr<ResultSet> tables(const CatalogSearch& search) override;
    std::unique_ptr<ResultSet> columns(const CatalogSearch& search) override;
    std::unique_ptr<ResultSet> procedureColumns(const CatalogSearch& search);
    std::string catalogName() override { return textInfo(SQL_DATABASE_NAME); }
    bool isReadOnly() override { return textInfo(SQL_DATA_SOURCE_READ_ONLY) == "Y"; }
    bool isDead() override;
    std::optional<Information> information(SQLUSMALLINT type) override;
    void interrupt() noexcept override;

    const OdbcHandle& handle() const noexcept { return m_connection; }
    const Dialect& dialect() const noexcept { return *m_dialect; }
    const DriverHabits& habits() const noexcept { return *m_habits; }

    /// Whether SQLGetData reads bound columns again, from their start.
    bool rereadsBound() const noexcept { return m_rereadsBound; }

    IdleStatements& idleStatements() noexcept { return *m_idle; }

    std::string textInfo(SQLUSMALLINT type) const;
    SQLUINTEGER numberInfo(SQLUSMALLINT type) const;

    /// Runs a statement without parameters or rows.
    void runScript(std::string_view sql);

    /// To be told of every statement that was executed, successful or not, to know where
    /// transactions begin and end.
    void executed(StatementKind kind) noexcept;

    /// Throws when the connection was given up.
    void requireConnection() const;

    /// All or nothing, inside or outside a transaction of the application: what is not released is
    /// undone.
    class Atomic {
      public:
        explicit Atomic(OdbcDatabase& database);
        Atomic(const Atomic&) = delete;
        Atomic& operator=(const Atomic&) = delete;
        ~Atomic();
        void release();

      private:
        void undo() noexcept;

        OdbcDatabase& m_database;
        std::string m_savepoint;  ///< empty: a transaction of its own
        bool m_released = false;
    };

    /// Marks a statement, while it runs, as the one that `interrupt` cancels.
    class Running {
      public:
        Running(OdbcDatabase& database, SQLHSTMT statement) : m_database(database) {
            set(statement);
        }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        ~Running() { set(SQL_NULL_HSTMT); }

      private:
        void set(SQLHSTMT statement) noexcept {
            const std::lock_guard lock(m_database.m_runningMutex);
            m_database.m_running = statement;
        }
        OdbcDatabase& m_database;
    };

  private:
    void connect(const std::string& text, bool narrow, Diagnostics& diagnostics);
    void disconnect() noexcept;
    void driverAutocommit(bool on) const;
    void returnToAutocommit() noexcept;
    void endDriverTransaction(bool commit) const;
    bool inTransaction();
    template <class Call>
    std::unique_ptr<ResultSet> runCatalog(const CatalogSearch& search, Call&& call);

    const DriverManager& m_manager;
    CursorOwner& m_cursors;
    const OdbcHandle m_environment;
    const OdbcHandle m_connection;
    const std::unique_ptr<IdleStatements> m_idle;
    const Dialect* m_dialect = nullptr;
    const DriverHabits* m_habits = nullptr;
    bool m_rereadsBound = false;
    bool m_autocommit = true;
    bool m_begun = false;    ///< a statement has opened a transaction with autocommit on
    bool m_changed = false;  ///< something was executed, with autocommit off, since the last end
    bool m_lost = false;     ///< given up: nobody knows what would be kept of what is done on it
    unsigned m_savepoints = 0;
    std::mutex m_runningMutex;
    SQLHSTMT m_running = SQL_NULL_HSTMT;
};

/// Whether a connection string is one for the driver manager.
bool asksForDriverManager(const ConnectString& text) noexcept;

/// The engine's entry. Null when the string leads the driver manager back to this very library, as
/// one does that found this runtime's caller as a driver.
std::unique_ptr<Database> openOdbc(const ConnectString& text, CursorOwner& cursors,
                                   Diagnostics& diagnostics);

/// Throws when this thread is waiting for the driver manager to connect it: the manager has come
/// back to this library. To be called before a connection string is read.
void refuseReturn();

}  // namespace embedded
