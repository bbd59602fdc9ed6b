#include "core/connection.h"

#include <algorithm>

#include "core/error.h"

namespace embedded {

Connection::~Connection() = default;

bool Connection::open(std::string_view text) {
    if (isOpen()) throw Error("08002", "The connection is already open.", native::kMisuse);
    if (forkCount() != 0) {
        for (const auto& other : HandleRegistry::instance().all<Connection>()) {
            other->forgetInherited();
        }
    }
    std::unique_ptr<Database> database =
        openDatabase(text, *this, diagnostics, loginTimeout, opensFilesOnly);
    if (!database) return false;
    if (!m_autocommit) database->setAutocommit(false);
    const std::lock_guard lock(m_interruptMutex);
    m_forks = forkCount();
    m_database = std::move(database);
    return true;
}

void Connection::close() {
    if (!isOpen()) throw Error("08003", "The connection is not open.", native::kMisuse);
    forgetInherited();
    if (!inherited()) closeUnasked();
    if (!m_autocommit && !inherited() && m_database->hasChanges()) {
        throw Error("25000", "Commit or roll back the open transaction before disconnecting.",
                    native::kMisuse);
    }
    while (m_statements) m_statements->drop();
    const std::lock_guard lock(m_interruptMutex);
    if (inherited()) static_cast<void>(m_database.release());
    m_database.reset();
}

Database& Connection::database() {
    if (!isOpen()) throw Error("08003", "The connection is not open.", native::kMisuse);
    return *m_database;
}

void Connection::setAutocommit(bool on) {
    if (isOpen() && on != m_autocommit) {
        if (on) closeUnasked();
        m_database->setAutocommit(on);
    }
    m_autocommit = on;
}

void Connection::endTransaction(bool commit) {
    closeUnasked();
    database().endTransaction(commit);
}

void Connection::closeCursors() noexcept {
    for (Attached* statement = m_statements; statement; statement = statement->next) {
        statement->closeCursor();
    }
}

void Connection::forgetInherited() {
    const std::lock_guard lock(m_interruptMutex);
    if (inherited()) m_database->forgetInherited();
}

void Connection::interrupt(std::atomic<Call>& call) noexcept {
    const std::lock_guard lock(m_interruptMutex);
    Call state = Call::Running;
    const bool isRunning =
        call.compare_exchange_strong(state, Call::Interrupted) || state == Call::Interrupted;
    if (isRunning && m_database) m_database->interrupt();
}

void Connection::forgetInterrupt() noexcept {
    const std::lock_guard lock(m_interruptMutex);
    if (m_database) m_database->forgetInterrupt();
}

void Connection::attach(Attached& statement) noexcept {
    statement.next = m_statements;
    if (m_statements) m_statements->previous = &statement;
    m_statements = &statement;
}

void Connection::detach(Attached& statement) noexcept {
    removeUnasked(statement);
    if (statement.next) statement.next->previous = statement.previous;
    (statement.previous ? statement.previous->next : m_statements) = statement.next;
    statement.next = nullptr;
    statement.previous = nullptr;
}

void Connection::removeUnasked(Attached& statement) noexcept {
    m_unasked.erase(std::remove(m_unasked.begin(), m_unasked.end(), &statement), m_unasked.end());
}

void Connection::closeUnasked() noexcept {
    while (!m_unasked.empty()) {
        Attached& statement = *m_unasked.back();
        m_unasked.pop_back();
        statement.overtake();
    }
}

}  // namespace embedded
