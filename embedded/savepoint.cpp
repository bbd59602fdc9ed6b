#include "savepoint.h"

namespace embedded {

Savepoint::Savepoint(Connection& connection, bool writes)
    : m_connection(connection),
      m_db(connection.db()),
      m_immediate(writes && sqlite3_get_autocommit(m_db)) {
    executeScript(m_db, m_immediate ? "BEGIN IMMEDIATE" : "SAVEPOINT vorda_all");
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
    const char* const sql = m_immediate ? "ROLLBACK" : "ROLLBACK TO vorda_all; RELEASE vorda_all";
    return sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void Savepoint::release() {
    executeScript(m_db, m_immediate ? "COMMIT" : "RELEASE vorda_all");
    m_released = true;
}

}  // namespace embedded
