#include "odbc/database.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "core/error.h"
#include "core/information.h"
#include "odbc/catalog.h"
#include "odbc/idle.h"
#include "odbc/program.h"
#include "odbc/session.h"
#include "odbc/transactions.h"

namespace embedded {
namespace {

constexpr std::string_view kKeys[] = {"DSN", "FILEDSN", "Driver"};

/// A recursion guard: how far this thread is in a call that connects.
struct Connecting {
    bool active = false;
    bool returned = false;  ///< the driver manager came back to this library
};
thread_local Connecting connecting;

class OdbcDatabase final : public Database {
  public:
    OdbcDatabase(const ConnectString& text, CursorOwner& cursors, Diagnostics& diagnostics,
                 SQLULEN loginTimeout)
        : m_session(text, diagnostics, loginTimeout), m_transactions(m_session, cursors) {}

    std::unique_ptr<Program> prepare(std::string_view sql, SQLULEN) override {
        return prepareOdbc(m_transactions, m_idle, sql);
    }
    void setAutocommit(bool on) override { m_transactions.setAutocommit(on); }
    void endTransaction(bool commit) override { m_transactions.endTransaction(commit); }
    bool hasChanges() override { return m_transactions.hasChanges() && !isDead(); }
    std::unique_ptr<ResultSet> catalog(const CatalogSearch& search) override {
        return odbcCatalog(m_session, search);
    }
    std::string catalogName() override { return m_session.catalogName(); }
    bool isReadOnly() override { return m_session.textInfo(SQL_DATA_SOURCE_READ_ONLY) == "Y"; }
    bool isDead() override { return m_session.isDead(); }
    std::optional<Information> information(SQLUSMALLINT type) override {
        if (infoKind(type) == InfoKind::Text) return m_session.textInfo(type);
        return m_session.numberInfo(type);
    }
    void interrupt() noexcept override { m_session.interrupt(); }
    std::optional<bool> transactionIsOpen() override { return m_transactions.isOpen(); }

  private:
    OdbcSession m_session;
    OdbcTransactions m_transactions;
    IdleStatements m_idle;  ///< goes first
};

}  // namespace

bool asksForDriverManager(const ConnectString& text) noexcept {
    return std::any_of(std::begin(kKeys), std::end(kKeys),
                       [&text](std::string_view key) { return text.has(key); });
}

void refuseReturn() {
    if (!connecting.active) return;
    connecting.returned = true;
    throw Error("08001", "The data source leads back to this runtime.", native::kMisuse);
}

std::unique_ptr<Database> openOdbc(const ConnectString& text, CursorOwner& cursors,
                                   Diagnostics& diagnostics, SQLULEN loginTimeout) {
    connecting = {.active = true};
    const auto done = [] { return std::exchange(connecting, {}).returned; };
    try {
        auto database = std::make_unique<OdbcDatabase>(text, cursors, diagnostics, loginTimeout);
        done();
        return database;
    } catch (...) {
        if (done()) return nullptr;
        throw;
    }
}

}  // namespace embedded
