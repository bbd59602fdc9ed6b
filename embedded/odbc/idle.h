#pragma once

#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "odbc/statement.h"

namespace embedded {

/// Statements of one connection that wait for the same text to come again, with parameters of the
/// same types; the least recently used go first. A text that comes a second time is prepared, and
/// from the third time on the server has its plan already.
class IdleStatements {
  public:
    /// The statement kept under `key`, or null.
    std::shared_ptr<OdbcStatement> take(std::string_view key);

    /// Keeps `statement`, whose rows are closed and which nobody else holds.
    void keep(std::string key, std::shared_ptr<OdbcStatement> statement) noexcept;

    void clear() noexcept;

  private:
    struct Entry {
        std::string key;
        std::shared_ptr<OdbcStatement> statement;
    };
    std::list<Entry> m_entries;  ///< most recently used first
    std::unordered_map<std::string_view, std::list<Entry>::iterator> m_byKey;
};

}  // namespace embedded
