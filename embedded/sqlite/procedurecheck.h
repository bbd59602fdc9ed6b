#pragma once

#include "sqlite/procedureparser.h"
#include "sqlite/session.h"

namespace embedded {

/// Compiles every statement of `procedure`, and of the procedures that it calls, against the
/// database as it would be when the statement's turn comes: what CREATE, ALTER and DROP do is done
/// for the time of the check. Throws an `Error` that names the first statement that cannot work.
void checkProcedure(Session& session, const ProcedureDefinition& procedure);

}  // namespace embedded
