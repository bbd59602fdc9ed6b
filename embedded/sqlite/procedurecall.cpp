#include "sqlite/procedurecall.h"

#include <algorithm>

#include "core/error.h"
#include "core/message.h"
#include "sqlite/procedurestore.h"

namespace embedded {
namespace {

constexpr size_t kNone = static_cast<size_t>(-1);

Error callError(const ProcedureDefinition& procedure, const std::string& what) {
    return {"42000", "Procedure " + quoted(procedure.name) + " " + what + "."};
}

}  // namespace

ProcedureDefinition loadProcedure(sqlite3* db, const std::string& name) {
    const auto stored = storedProcedure(db, name);
    if (!stored) throw Error("42000", "There is no procedure " + quoted(name) + ".");
    auto command = parseProcedureCommand(stored->text);
    if (auto* definition = command ? std::get_if<ProcedureDefinition>(&*command) : nullptr) {
        return std::move(*definition);
    }
    throw Error("HY000", "The stored text of procedure " + quoted(name) + " is damaged.",
                SQLITE_CORRUPT);
}

std::vector<size_t> matchArguments(const ProcedureDefinition& procedure,
                                   const ProcedureCall& call) {
    const size_t count = procedure.parameters.size();
    std::vector<size_t> arguments(count, kNone);
    for (size_t i = 0; i < call.arguments.size(); ++i) {
        const std::string& name = call.arguments[i].name;
        if (name.empty() && i >= count) {
            throw callError(procedure, "has " + std::to_string(count) +
                                           " parameter(s); there is none for argument " +
                                           std::to_string(i + 1));
        }
        const size_t index = name.empty() ? i : procedure.indexOf(name).value_or(kNone);
        if (index == kNone) throw callError(procedure, "has no parameter " + quoted(name));
        if (arguments[index] != kNone) {
            throw callError(procedure, "is given two values for its parameter " +
                                           quoted(procedure.parameters[index].name));
        }
        arguments[index] = i;
    }
    const auto missing = std::find(arguments.begin(), arguments.end(), kNone);
    if (missing != arguments.end()) {
        const auto index = static_cast<size_t>(missing - arguments.begin());
        throw callError(procedure, "is given no value for its parameter " +
                                       quoted(procedure.parameters[index].name));
    }
    return arguments;
}

std::string argumentQuery(const ProcedureCall& call) {
    std::string sql;
    for (const ProcedureCall::Argument& argument : call.arguments) {
        sql += (sql.empty() ? "SELECT " : ", ") + argument.value;
    }
    return sql.empty() ? "SELECT NULL" : sql;
}

std::vector<size_t> matchMarkers(sqlite3_stmt* statement, const ProcedureDefinition& procedure) {
    std::vector<size_t> parameters(static_cast<size_t>(sqlite3_bind_parameter_count(statement)));
    for (size_t i = 0; i < parameters.size(); ++i) {
        const char* name = sqlite3_bind_parameter_name(statement, static_cast<int>(i) + 1);
        const std::string_view text = name ? name : "?";
        if (!text.starts_with('$')) {
            throw Error("42000", "The marker " + quoted(text) +
                                     " has no meaning in a procedure; a parameter is written with "
                                     "a $ in front of its name.");
        }
        const auto index = procedure.indexOf(text.substr(1));
        if (!index) {
            throw callError(procedure, "has no parameter " + quoted(text.substr(1)));
        }
        parameters[i] = *index;
    }
    return parameters;
}

std::string placeIn(const ProcedureDefinition& procedure, size_t statement) {
    return "procedure " + quoted(procedure.name) + ", statement " + std::to_string(statement + 1);
}

void refuseDepth(const ProcedureDefinition& procedure) {
    throw Error("54001", "Procedures call each other more than " +
                             std::to_string(kMaxProcedureDepth) + " deep, the last of them " +
                             quoted(procedure.name) + ".");
}

std::optional<ProcedureCall> nestedCall(std::string_view statement) {
    auto command = parseProcedureCommand(statement);
    if (!command) return std::nullopt;
    if (auto* call = std::get_if<ProcedureCall>(&*command)) return std::move(*call);
    throw Error("42000", "A procedure cannot create or drop procedures.");
}

}  // namespace embedded
