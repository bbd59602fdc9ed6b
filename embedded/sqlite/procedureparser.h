#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace embedded {

struct ProcedureParameter {
    std::string name;  ///< without the $ under which the body knows it
    std::string type;  ///< as declared; may be empty
};

/// CREATE [OR REPLACE] PROCEDURE name [(parameter [type], …)] AS statement; …
struct ProcedureDefinition {
    std::string name;
    bool replaces = false;
    std::vector<ProcedureParameter> parameters;
    std::vector<std::string> body;  ///< its statements, at least one

    /// The position of the parameter `name`, ASCII letters in any case.
    std::optional<size_t> indexOf(std::string_view parameter) const noexcept;
};

/// DROP PROCEDURE [IF EXISTS] name
struct ProcedureRemoval {
    std::string name;
    bool ifExists = false;
};

/// EXEC[UTE] name [[parameter =] value, …]; a value is a literal or stands for one.
struct ProcedureCall {
    struct Argument {
        std::string name;   ///< empty for a positional one; these come first
        std::string value;  ///< SQL text
    };
    std::string name;
    std::vector<Argument> arguments;
};

using ProcedureCommand = std::variant<ProcedureDefinition, ProcedureRemoval, ProcedureCall>;

/// Reads a statement about procedures; nothing when `sql` is none. Throws an `Error` of class 42
/// for a mistake in it. The statements of a body are told apart but not read.
std::optional<ProcedureCommand> parseProcedureCommand(std::string_view sql);

}  // namespace embedded
