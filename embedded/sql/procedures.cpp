#include "sql/procedures.h"

#include <algorithm>
#include <iterator>

#include "values/text.h"

namespace embedded {
namespace {

using Kind = SqlReader::Kind;
using Token = SqlReader::Token;

constexpr size_t kNone = static_cast<size_t>(-1);

/// A number without sign: digits with at most one point and an exponent, or 0x and hexadecimal
/// digits. Whether it is a good one is left to the database.
bool isNumber(std::string_view text) noexcept {
    // SQLite would take what follows the hexadecimal digits for the name of a column.
    if (sameWord(text.substr(0, 2), "0x")) {
        return text.size() > 2 &&
               text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string_view::npos;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool afterE = i > 0 && (text[i - 1] == 'e' || text[i - 1] == 'E');
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (isDigit(c) || c == '.' || ((c == '+' || c == '-') && afterE)) continue;
        if (!letter || i == 0) return false;
    }
    // At the beginning, or behind the point there.
    return text.find_first_of("0123456789") <= 1;
}

bool isLiteral(std::string_view text) noexcept {
    SqlScanner scanner(text);
    const Token first = scanner.next();
    if (scanner.position() == text.size()) {
        constexpr std::string_view kWords[] = {"NULL", "TRUE", "FALSE"};
        if (first.kind == Kind::String || first.kind == Kind::Marker ||
            first.kind == Kind::Variable ||
            std::any_of(std::begin(kWords), std::end(kWords),
                        [&](std::string_view word) { return sameWord(word, text); })) {
            return true;
        }
    }
    if (text.starts_with('+') || text.starts_with('-')) text = trimmed(text.substr(1));
    return isNumber(text);
}

std::string parseValue(SqlReader& reader, ArgumentValues values) {
    const SqlReader before = reader;
    int depth = 0;
    for (; !reader.atEnd(); reader.advance()) {
        if (depth <= 0 && (reader.is(",") || reader.is(";"))) break;
        if (reader.is("(") || reader.is("[")) ++depth;
        if (reader.is(")") || reader.is("]")) --depth;
    }
    const std::string_view value = reader.from(before.begin());
    if (value.empty() || (values == ArgumentValues::Literals && !isLiteral(value))) {
        before.fail(values == ArgumentValues::Any ? "a value expected"
                                                  : "a literal or a parameter marker expected");
    }
    return std::string(value);
}

/// The name in front of "=": plain, quoted, or as a variable ($a, @a, :a).
std::string parseArgumentName(SqlReader& reader) {
    if (reader.token().kind != Kind::Variable) return reader.name("a parameter's name");
    std::string name(reader.token().text.substr(1));
    reader.advance();
    return name;
}

}  // namespace

bool acceptExecute(SqlReader& reader) noexcept {
    return reader.accept("EXECUTE") || reader.accept("EXEC");
}

std::vector<Argument> parseArguments(SqlReader& reader, ArgumentValues values) {
    std::vector<Argument> arguments;
    if (!reader.atEnd() && !reader.is(";")) {
        do {
            Argument argument;
            SqlReader ahead = reader;
            ahead.advance();
            if (ahead.is("=")) {
                argument.name = parseArgumentName(reader);
                reader.advance();
            } else if (!arguments.empty() && !arguments.back().name.empty()) {
                reader.fail("an argument without a name cannot follow one with a name");
            }
            argument.value = parseValue(reader, values);
            arguments.push_back(std::move(argument));
        } while (reader.accept(","));
    }
    reader.expectEnd();
    return arguments;
}

std::optional<size_t> indexOf(const std::vector<ProcedureParameter>& parameters,
                              std::string_view name) noexcept {
    for (size_t i = 0; i < parameters.size(); ++i) {
        std::string_view known = parameters[i].name;
        if (known.starts_with('@')) known.remove_prefix(1);
        if (sameWord(known, name)) return i;
    }
    return std::nullopt;
}

std::vector<size_t> matchArguments(const std::string& procedure,
                                   const std::vector<ProcedureParameter>& parameters,
                                   const std::vector<Argument>& arguments) {
    const size_t count = parameters.size();
    std::vector<size_t> positions(count, kNone);
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& name = arguments[i].name;
        if (name.empty() && i >= count) {
            throw callError(procedure, "has " + std::to_string(count) +
                                           " parameter(s); there is none for argument " +
                                           std::to_string(i + 1));
        }
        const size_t index = name.empty() ? i : indexOf(parameters, name).value_or(kNone);
        if (index == kNone) throw callError(procedure, "has no parameter " + inQuotes(name));
        if (positions[index] != kNone) {
            throw callError(procedure, "is given two values for its parameter " +
                                           inQuotes(parameters[index].name));
        }
        positions[index] = i;
    }
    const auto missing = std::find(positions.begin(), positions.end(), kNone);
    if (missing != positions.end()) {
        const auto index = static_cast<size_t>(missing - positions.begin());
        throw callError(procedure,
                        "is given no value for its parameter " + inQuotes(parameters[index].name));
    }
    return positions;
}

Error callError(const std::string& procedure, const std::string& what) {
    return {"42000", "Procedure " + inQuotes(procedure) + " " + what + "."};
}

}  // namespace embedded
