#pragma once

#include <memory>
#include <string_view>

#include "engine.h"
#include "odbc/idle.h"
#include "odbc/transactions.h"

namespace embedded {

/// A statement for the driver, a procedure call, or a question for the tables of the procedures.
std::unique_ptr<Program> prepareOdbc(OdbcTransactions& transactions, IdleStatements& idle,
                                     std::string_view sql);

}  // namespace embedded
