#pragma once

#include <string>

#include "sqlite/session.h"

namespace embedded {

/// All or nothing, inside or outside a transaction of the application: what is not released is
/// undone.
class Savepoint {
  public:
    /// With `writes`, and when no transaction is open, waits for the right to write at once: SQLite
    /// does not wait for it any more behind a read.
    Savepoint(Session& session, bool writes);
    Savepoint(const Savepoint&) = delete;
    Savepoint& operator=(const Savepoint&) = delete;
    ~Savepoint();

    /// Keeps what was done; the end of the transaction if the savepoint began it. Throws when that
    /// fails, and then the destructor undoes it.
    void release();

  private:
    Session& m_session;
    const bool m_begins;  ///< no transaction was open
    const std::string m_name;
    Session::Undo m_undo;  ///< made beforehand: want of memory may be what makes it necessary
    bool m_released = false;
};

}  // namespace embedded
