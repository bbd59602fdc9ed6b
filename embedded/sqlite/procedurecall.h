#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sqlite/procedureparser.h"
#include "sqlite/session.h"

namespace embedded {

/// How deep procedures may call each other.
inline constexpr size_t kMaxProcedureDepth = 32;

/// The stored procedure `name`. Throws when there is none.
ProcedureDefinition loadProcedure(sqlite3* db, const std::string& name);

/// For every parameter the position of its argument. Throws for a missing, unknown or doubled one.
std::vector<size_t> matchArguments(const ProcedureDefinition& procedure, const ProcedureCall& call);

/// A query whose one row is the arguments in the order of the text.
std::string argumentQuery(const ProcedureCall& call);

/// The position of the parameter that every marker of `statement` stands for. Throws when one
/// stands for none.
std::vector<size_t> matchMarkers(sqlite3_stmt* statement, const ProcedureDefinition& procedure);

/// "procedure 'p', statement 2".
std::string placeIn(const ProcedureDefinition& procedure, size_t statement);

/// Throws: procedures call each other too deep.
[[noreturn]] void refuseDepth(const ProcedureDefinition& procedure);

/// The call in a statement of a body, if it is one.
std::optional<ProcedureCall> nestedCall(std::string_view statement);

}  // namespace embedded
