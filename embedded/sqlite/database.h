#pragma once

#include <memory>
#include <string>

#include "engine.h"
#include "sqlite/session.h"

namespace embedded {

/// A database in an SQLite file or in memory.
class SqliteDatabase final : public Database {
  public:
    SqliteDatabase(const SqliteOptions& options, CursorOwner& cursors);

    std::unique_ptr<Program> prepare(std::string_view sql, SQLULEN timeout) override;
    void setAutocommit(bool on) override { m_session.setAutocommit(on); }
    void endTransaction(bool commit) override { m_session.endTransaction(commit); }
    bool hasChanges() override;
    SQLSMALLINT nullability(const Column& column) override;
    std::unique_ptr<ResultSet> catalog(const CatalogSearch& search) override;
    std::string catalogName() override { return m_name; }
    bool isReadOnly() override { return sqlite3_db_readonly(m_session.db(), "main") == 1; }
    bool isDead() override { return false; }
    std::optional<Information> information(SQLUSMALLINT type) override;
    bool setProgress(const VordaProgress* progress) override {
        m_session.setProgress(progress);
        return true;
    }
    std::optional<bool> transactionIsOpen() override { return m_session.isOpen(); }
    void interrupt() noexcept override { m_session.interrupt(); }
    void forgetInterrupt() noexcept override { m_session.forgetInterrupt(); }

    /// Makes SQLite forget the locks of a database that was opened before a fork. They stayed with
    /// the parent, but SQLite's notes about them are copied to the child: they would make it read a
    /// file that it opens anew without a lock. Touches no file.
    void forgetInherited() override;

  private:
    const std::string m_name;
    Session m_session;
};

/// The engine's entry.
std::unique_ptr<Database> openSqlite(const ConnectString& text, CursorOwner& cursors,
                                     Diagnostics& diagnostics);

}  // namespace embedded
