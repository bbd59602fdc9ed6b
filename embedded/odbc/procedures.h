#pragma once

#include <memory>
#include <optional>
#include <string>

#include "engine.h"
#include "odbc/session.h"
#include "odbc/sqltext.h"

namespace embedded {

/// A procedure call in the forms that servers understand, the arguments in declared order.
struct DriverCall {
    std::string escape;     ///< {call name(…)}, for the driver to translate
    std::string statement;  ///< CALL name(…)
};

/// "EXECUTE name a=@1 , b=@2 " as the driver's call; nothing for any other statement. EXECUTE with
/// arguments in brackets, with USING or IMMEDIATE is the server's own. Throws when an argument is
/// missing, unknown or doubled.
std::optional<DriverCall> driverCall(OdbcSession& session, const StatementText& text);

/// "SELECT … FROM sys_procedureparameters WHERE ProcedureName = …", to be answered from the
/// driver's catalogue; null for any other statement. Throws for a question that is put otherwise.
std::unique_ptr<Program> prepareParameterQuery(OdbcSession& session, const StatementText& text);

}  // namespace embedded
