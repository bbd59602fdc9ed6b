#pragma once

#include <sql.h>
#include <sqlext.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/error.h"
#include "sql/reader.h"

namespace embedded {

/// One input parameter of a procedure.
struct ProcedureParameter {
    std::string name;  ///< some servers' catalogues write an @ in front
    std::string type;  ///< as declared; may be empty
};

/// A value in a call.
struct Argument {
    std::string name;   ///< empty for a positional one; these come first
    std::string value;  ///< SQL text
};

enum class ArgumentValues {
    Any,       ///< the server reads them
    Literals,  ///< literals, markers and variables: nothing that could compute or read anything
};

/// Whether a call comes, which is passed: EXECUTE or EXEC.
bool acceptExecute(SqlReader& reader) noexcept;

/// Reads what stands behind a procedure's name, to the end: [[parameter =] value, …]. Throws an
/// `Error` of class 42 for a mistake.
std::vector<Argument> parseArguments(SqlReader& reader, ArgumentValues values);

/// The position of the parameter `name`, ASCII letters in any case.
std::optional<size_t> indexOf(const std::vector<ProcedureParameter>& parameters,
                              std::string_view name) noexcept;

/// For every parameter of `procedure` the position of its argument. Throws for a missing, unknown
/// or doubled one.
std::vector<size_t> matchArguments(const std::string& procedure,
                                   const std::vector<ProcedureParameter>& parameters,
                                   const std::vector<Argument>& arguments);

/// A mistake in a call: "Procedure 'p' `what`."
Error callError(const std::string& procedure, const std::string& what);

/// The tables that show the procedures and their parameters.
inline constexpr std::string_view kProceduresTable = "sys_procedures";
inline constexpr std::string_view kProcedureParametersTable = "sys_procedureparameters";

struct SystemColumn {
    std::string_view name;
    SQLSMALLINT sqlType = SQL_WVARCHAR;
    bool isName = false;  ///< letters compare in any case
};

inline constexpr SystemColumn kProceduresColumns[] = {
    {"ProcedureName", SQL_WVARCHAR, true},
    {"Definition"},
};
inline constexpr SystemColumn kProcedureParametersColumns[] = {
    {"ProcedureName", SQL_WVARCHAR, true},
    {"ColumnName", SQL_WVARCHAR, true},
    {"OrdinalPosition", SQL_BIGINT},
    {"DataTypeName"},
};

}  // namespace embedded
