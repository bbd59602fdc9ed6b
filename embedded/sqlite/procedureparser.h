#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "sql/procedures.h"

namespace embedded {

/// CREATE [OR REPLACE] PROCEDURE name [(parameter [type], …)] AS statement; …
struct ProcedureDefinition {
    std::string name;
    bool replaces = false;
    std::vector<ProcedureParameter> parameters;  ///< the body knows them with a $ in front
    std::vector<std::string> body;               ///< its statements, at least one
};

/// DROP PROCEDURE [IF EXISTS] name
struct ProcedureRemoval {
    std::string name;
    bool ifExists = false;
};

/// EXEC[UTE] name [[parameter =] value, …]; a value is a literal or stands for one.
struct ProcedureCall {
    std::string name;
    std::vector<Argument> arguments;
};

using ProcedureCommand = std::variant<ProcedureDefinition, ProcedureRemoval, ProcedureCall>;

/// Reads a statement about procedures; nothing when `sql` is none. Throws an `Error` of class 42
/// for a mistake in it. The statements of a body are told apart but not read.
std::optional<ProcedureCommand> parseProcedureCommand(std::string_view sql);

}  // namespace embedded
