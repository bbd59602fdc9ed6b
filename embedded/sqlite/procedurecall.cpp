#include "sqlite/procedurecall.h"

#include "core/error.h"
#include "sqlite/procedurestore.h"
#include "values/text.h"

namespace embedded {

ProcedureDefinition loadProcedure(sqlite3* db, const std::string& name) {
    const auto stored = storedProcedure(db, name);
    if (!stored) throw Error("42000", "There is no procedure " + inQuotes(name) + ".");
    auto command = parseProcedureCommand(stored->text);
    if (auto* definition = command ? std::get_if<ProcedureDefinition>(&*command) : nullptr) {
        return std::move(*definition);
    }
    throw Error("HY000", "The stored text of procedure " + inQuotes(name) + " is damaged.",
                SQLITE_CORRUPT);
}

std::vector<size_t> matchArguments(const ProcedureDefinition& procedure,
                                   const ProcedureCall& call) {
    return matchArguments(procedure.name, procedure.parameters, call.arguments);
}

std::string argumentQuery(const ProcedureCall& call) {
    std::string sql;
    for (const Argument& argument : call.arguments) {
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
            throw Error("42000", "The marker " + inQuotes(text) +
                                     " has no meaning in a procedure; a parameter is written with "
                                     "a $ in front of its name.");
        }
        const auto index = indexOf(procedure.parameters, text.substr(1));
        if (!index) {
            throw callError(procedure.name, "has no parameter " + inQuotes(text.substr(1)));
        }
        parameters[i] = *index;
    }
    return parameters;
}

std::string placeIn(const ProcedureDefinition& procedure, size_t statement) {
    return "procedure " + inQuotes(procedure.name) + ", statement " + std::to_string(statement + 1);
}

void refuseDepth(const ProcedureDefinition& procedure) {
    throw Error("54001", "Procedures call each other more than " +
                             std::to_string(kMaxProcedureDepth) + " deep, the last of them " +
                             inQuotes(procedure.name) + ".");
}

std::optional<ProcedureCall> nestedCall(std::string_view statement) {
    auto command = parseProcedureCommand(statement);
    if (!command) return std::nullopt;
    if (auto* call = std::get_if<ProcedureCall>(&*command)) return std::move(*call);
    throw Error("42000", "A procedure cannot create or drop procedures.");
}

}  // namespace embedded
