#pragma once

#include <memory>

#include "core/resultset.h"
#include "odbc/statement.h"

namespace embedded {

/// The rows of an executed statement, read from the driver one by one.
std::unique_ptr<ResultSet> makeOdbcRows(std::shared_ptr<OdbcStatement> statement);

}  // namespace embedded
