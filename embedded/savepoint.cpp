#include "savepoint.h"

namespace embedded {

Savepoint::Savepoint(Connection& connection, bool writes)
    : m_connection(connection), m_db(connection.db()), m_begins(sqlite3_get_autocommit(m_db) != 0) {
    executeScript(m_db, !m_begins ? "SAVEPOINT vorda_all" : writes ? "BEGIN IMMEDIATE" : "BEGIN");
}

Savepoint::~Savepoint() {
    // Some failures have ended the whole transaction already.
    if (m_released || sqlite3_get_autocommit(m_db) || undo()) return;
    // An interruption lasts as long as any statement runs, and would stop this, too. The cursors
    // that are open are interrupted anyhow.
    m_connection.closeCursors();
    undo();
}

bool Savepoint::undo() noexcept {
    // The release of an outermost savepoint is a commit, which others can keep from happening.
    const char* const sql = m_begins ? "ROLLBACK" : "ROLLBACK TO vorda_all; RELEASE vorda_all";
    return sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void Savepoint::release() {
    executeScript(m_db, m_begins ? "COMMIT" : "RELEASE vorda_all");
    m_released = true;
}

}  // namespace embedded
