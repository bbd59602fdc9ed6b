// Many sets of parameters for one execution, as a driver takes them.
#pragma once

#include <sqlext.h>

#include <optional>
#include <vector>

#include "odbc/statement.h"

namespace embedded {

/// What SQL_ATTR_PARAMSET_SIZE and its companions are set to, for one execution. Drivers write into
/// it while they execute; behind its end they have none of its addresses, or the statement is
/// unusable.
class ParameterArray {
  public:
    ParameterArray(OdbcStatement& statement, SQLULEN count);
    ParameterArray(const ParameterArray&) = delete;
    ParameterArray& operator=(const ParameterArray&) = delete;
    ~ParameterArray();

    /// Whether the driver has arrays. A warning says that it has changed the value.
    bool accepted() const noexcept { return m_accepted; }

    /// The only set that failed, if the driver tells.
    std::optional<SQLULEN> failed() const noexcept;

    /// Whether each set was executed. Some drivers count them and say nothing of each.
    bool complete() const noexcept;

  private:
    SQLRETURN set(SQLINTEGER attribute, SQLULEN value) const noexcept;
    bool point(SQLINTEGER attribute, SQLPOINTER value) const noexcept;

    OdbcStatement& m_statement;
    std::vector<SQLUSMALLINT> m_status;
    SQLULEN m_processed = 0;
    bool m_sized = false;
    bool m_accepted = false;
};

}  // namespace embedded
