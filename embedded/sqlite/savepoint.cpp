#include "sqlite/savepoint.h"

namespace embedded {

// Each has a name of its own, so that undoing one undoes those within it, whatever became of them.
Savepoint::Savepoint(Session& session, bool writes)
    : m_session(session),
      m_begins(sqlite3_get_autocommit(session.db()) != 0),
      m_name("vorda_" + std::to_string(session.nextSavepoint())),
      // The release of an outermost savepoint is a commit, which others can keep from happening.
      m_undo(m_begins ? "ROLLBACK" : "ROLLBACK TO " + m_name + "; RELEASE " + m_name) {
    session.run(!m_begins ? ("SAVEPOINT " + m_name).c_str() : writes ? "BEGIN IMMEDIATE" : "BEGIN");
}

Savepoint::~Savepoint() {
    if (!m_released) m_session.undo(std::move(m_undo));
}

void Savepoint::release() {
    m_session.requireTime();
    m_session.run(m_begins ? "COMMIT" : ("RELEASE " + m_name).c_str());
    m_released = true;
}

}  // namespace embedded
