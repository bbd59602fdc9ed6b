#pragma once

#include <memory>

#include "odbc/statement.h"
#include "resultset.h"

namespace embedded {

/// The columns of a statement that is executed, or prepared.
std::vector<Column> describeColumns(const OdbcStatement& statement);

/// The rows of an executed statement, read from the driver one by one.
std::unique_ptr<ResultSet> makeOdbcRows(std::shared_ptr<OdbcStatement> statement);

}  // namespace embedded
