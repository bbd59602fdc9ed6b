#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "core/recent.h"
#include "odbc/statement.h"

namespace embedded {

/// A statement that waits for the same text to come again, with parameters of the same types. Its
/// rows are closed, and nobody else holds it.
struct IdleStatement {
    std::string key;
    std::shared_ptr<OdbcStatement> statement;

    static std::string_view keyOf(const IdleStatement& idle) noexcept { return idle.key; }
};

/// The idle statements of one connection. A text that comes a second time is prepared, and from the
/// third time on the server has its plan already.
class IdleStatements : public RecentlyUsed<IdleStatement, &IdleStatement::keyOf> {
  public:
    IdleStatements() noexcept : RecentlyUsed(kMost) {}

  private:
    static constexpr size_t kMost = 32;
};

}  // namespace embedded
