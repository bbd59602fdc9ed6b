#include "sqlite/procedureparser.h"

#include "core/error.h"
#include "sqlite/sqltext.h"
#include "values/text.h"

namespace embedded {
namespace {

using Kind = SqlReader::Kind;

/// The name of a parameter, plain or as a variable ($a, @a, :a). Quotes do not make names possible
/// that a body could not write behind a $.
std::string parameterName(SqlReader& reader) {
    const SqlReader before = reader;
    std::string result;
    if (reader.token().kind == Kind::Variable) {
        result = reader.token().text.substr(1);
        reader.advance();
    } else {
        result = reader.name("a parameter's name");
    }
    const SqlReader word(result);
    if (!word.isName() || word.token().text != result) before.fail("no name for a parameter");
    return result;
}

/// The type of a parameter: words, and numbers in parentheses behind them.
std::string parameterType(SqlReader& reader) {
    if (reader.token().kind != Kind::Word) return {};
    const size_t begin = reader.begin();
    while (reader.token().kind == Kind::Word) reader.advance();
    if (reader.accept("(")) {
        while (reader.token().kind == Kind::Word || reader.is(",")) reader.advance();
        reader.expect(")");
    }
    return std::string(reader.from(begin));
}

std::vector<ProcedureParameter> parseParameters(SqlReader& reader) {
    std::vector<ProcedureParameter> parameters;
    if (!reader.accept("(") || reader.accept(")")) return parameters;
    do {
        std::string name = parameterName(reader);
        if (indexOf(parameters, name)) {
            throw Error("42000", "Two parameters are named " + inQuotes(name) + ".");
        }
        parameters.push_back({std::move(name), parameterType(reader)});
    } while (reader.accept(","));
    reader.expect(")");
    return parameters;
}

/// Reads to the end of a CREATE TRIGGER statement: the first END that follows a semicolon.
void skipTrigger(SqlReader& reader) noexcept {
    bool behindSemicolon = false;
    while (!reader.atEnd()) {
        if (behindSemicolon && reader.accept("END")) return;
        behindSemicolon = reader.is(";");
        reader.advance();
    }
}

bool startsTrigger(SqlReader reader) noexcept {
    if (!reader.accept("CREATE")) return false;
    if (!reader.accept("TEMP")) reader.accept("TEMPORARY");
    return reader.is("TRIGGER");
}

std::vector<std::string> parseBody(SqlReader& reader) {
    std::vector<std::string> statements;
    while (!reader.atEnd()) {
        if (reader.accept(";")) continue;
        const size_t begin = reader.begin();
        if (startsTrigger(reader)) skipTrigger(reader);
        while (!reader.atEnd() && !reader.is(";")) reader.advance();
        statements.emplace_back(reader.from(begin));
    }
    if (statements.empty()) reader.fail("a procedure needs a statement");
    return statements;
}

ProcedureDefinition parseDefinition(SqlReader& reader, bool replaces) {
    ProcedureDefinition definition;
    definition.replaces = replaces;
    definition.name = reader.name("a procedure's name");
    definition.parameters = parseParameters(reader);
    reader.expect("AS");
    definition.body = parseBody(reader);
    return definition;
}

ProcedureRemoval parseRemoval(SqlReader& reader) {
    ProcedureRemoval removal;
    SqlReader ahead = reader;
    if (ahead.accept("IF") && ahead.accept("EXISTS")) {
        removal.ifExists = true;
        reader = ahead;
    }
    removal.name = reader.name("a procedure's name");
    reader.expectEnd();
    return removal;
}

}  // namespace

std::optional<ProcedureCommand> parseProcedureCommand(std::string_view sql) {
    if (!mayBeginWith("cde", sql)) return std::nullopt;
    // Terminating characters that the caller counted in are no part of the statement.
    SqlReader reader(sql.substr(0, sql.find_last_not_of('\0') + 1));
    while (reader.accept(";")) {
    }
    if (acceptExecute(reader)) {
        ProcedureCall call{.name = reader.name("a procedure's name"), .arguments = {}};
        call.arguments = parseArguments(reader, ArgumentValues::Literals);
        return call;
    }
    if (reader.accept("DROP") && reader.accept("PROCEDURE")) return parseRemoval(reader);
    if (reader.accept("CREATE")) {
        const bool replaces = reader.accept("OR") && reader.accept("REPLACE");
        if (reader.accept("PROCEDURE")) return parseDefinition(reader, replaces);
    }
    return std::nullopt;
}

}  // namespace embedded
