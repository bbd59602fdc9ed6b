#pragma once

#include <memory>

#include "core/resultset.h"
#include "odbc/statement.h"

namespace embedded {

/// The rows of an executed statement, read from the driver one by one.
/// With `last`, results behind them are passed over at their end, for their failures.
std::unique_ptr<ResultSet> makeOdbcRows(std::shared_ptr<OdbcStatement> statement, bool last = true);

}  // namespace embedded
