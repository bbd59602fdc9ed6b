#include "odbc/procedures.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "core/error.h"
#include "core/message.h"
#include "core/parameters.h"
#include "odbc/catalog.h"
#include "odbc/sqltext.h"
#include "odbc/statement.h"
#include "values/text.h"

namespace embedded {
namespace {

using Kind = SqlScanner::Kind;
using Token = SqlScanner::Token;

constexpr std::string_view kQuotes = "'\"";
constexpr std::string_view kTable = "sys_procedureparameters";

std::vector<Token> tokensOf(std::string_view sql, const Dialect& dialect) {
    std::vector<Token> tokens;
    SqlScanner scanner(sql, dialect.syntax);
    for (Token token = scanner.next(); token.kind != Kind::End; token = scanner.next()) {
        tokens.push_back(token);
    }
    while (!tokens.empty() && tokens.back().text == ";") tokens.pop_back();
    return tokens;
}

bool isWord(const Token& token, std::string_view word) noexcept {
    return token.kind == Kind::Word && sameWord(token.text, word);
}

bool isName(const Token& token) noexcept {
    return token.kind == Kind::Word || token.kind == Kind::QuotedName;
}

/// What stands between quotes, doubled ones taken once.
std::string unquoted(std::string_view text) {
    const char close = text.back();
    std::string result;
    for (size_t i = 1; i + 1 < text.size(); ++i) {
        result += text[i];
        if (text[i] == close) ++i;
    }
    return result;
}

// ---- the catalogue

/// One input parameter of a procedure.
struct Parameter {
    std::string name;
    std::string typeName;
};

/// "schema.name", each part as it stands in the catalogue.
struct ProcedureName {
    Pattern qualifier;
    std::string name;
};

/// A name as the catalogue has it: what is not quoted is folded as the server does.
std::string catalogued(const OdbcSession& session, const Token& token) {
    if (token.kind == Kind::QuotedName) return unquoted(token.text);
    std::string name(token.text);
    const SQLUINTEGER fold = session.numberInfo(SQL_IDENTIFIER_CASE);
    if (fold == SQL_IC_UPPER) return upper(name);
    return fold == SQL_IC_LOWER ? lower(name) : name;
}

/// The name that starts at `at`, which is moved behind it.
std::optional<ProcedureName> takeName(const OdbcSession& session, const std::vector<Token>& tokens,
                                      size_t& at) {
    std::vector<std::string> parts;
    for (;;) {
        if (at >= tokens.size() || !isName(tokens[at])) return std::nullopt;
        parts.push_back(catalogued(session, tokens[at++]));
        if (at >= tokens.size() || tokens[at].text != ".") break;
        ++at;
    }
    ProcedureName name{std::nullopt, parts.back()};
    if (parts.size() > 1) name.qualifier = parts[parts.size() - 2];
    return name;
}

/// `name` as a pattern that matches nothing else.
std::string exactPattern(const OdbcSession& session, std::string_view name) {
    const std::string escape = session.textInfo(SQL_SEARCH_PATTERN_ESCAPE);
    std::string pattern;
    for (const char c : name) {
        if (c == '%' || c == '_' || escape == std::string_view(&c, 1)) pattern += escape;
        pattern += c;
    }
    return pattern;
}

/// Where a server has no schemas, its catalogues take their place.
CatalogSearch searchFor(const OdbcSession& session, const ProcedureName& name) {
    CatalogSearch search;
    search.table = exactPattern(session, name.name);
    if (!session.textInfo(SQL_SCHEMA_TERM).empty()) {
        if (name.qualifier) search.schema = exactPattern(session, *name.qualifier);
    } else {
        search.catalog = name.qualifier ? *name.qualifier : session.catalogName();
    }
    return search;
}

std::string textOf(ResultSet& rows, int column) {
    const Cell cell = rows.cell(column);
    return cell.kind == Cell::Kind::Text ? std::string(cell.bytes) : std::string();
}

/// The input parameters of a procedure in their order. Empty also for one that does not exist.
std::vector<Parameter> parametersOf(OdbcSession& session, const ProcedureName& name) {
    constexpr int kSchema = 1;
    constexpr int kName = 3;
    constexpr int kKind = 4;
    constexpr int kTypeName = 6;
    constexpr int kOrdinal = 17;
    std::unique_ptr<ResultSet> rows;
    try {
        rows = odbcProcedureColumns(session, searchFor(session, name));
    } catch (const Error& error) {
        throw Error(error.state(),
                    "The driver has no catalogue of the parameters of procedures: " +
                        std::string(error.what()),
                    error.native());
    }
    std::vector<Parameter> parameters;
    std::string schema;
    std::int64_t last = 0;
    while (rows->next()) {
        const std::int64_t kind = rows->cell(kKind).integer;
        if (kind != SQL_PARAM_INPUT && kind != SQL_PARAM_INPUT_OUTPUT) continue;
        const std::int64_t ordinal =
            rows->columnCount() > kOrdinal ? rows->cell(kOrdinal).integer : last + 1;
        if (!parameters.empty() && (ordinal <= last || textOf(*rows, kSchema) != schema)) {
            throw notSupported("There are several procedures " + quoted(name.name) +
                               "; their parameters cannot be told apart.");
        }
        last = ordinal;
        schema = textOf(*rows, kSchema);
        parameters.push_back({textOf(*rows, kName), textOf(*rows, kTypeName)});
    }
    if (parameters.empty() && session.textInfo(SQL_PROCEDURES) == "N") {
        throw notSupported("The driver has no catalogue of the parameters of procedures.");
    }
    return parameters;
}

// ---- calls

struct Argument {
    std::string name;  ///< empty: by position
    std::string_view value;
};

/// The name in front of "=", as `a`, `@a` or `:a`.
std::string argumentName(const OdbcSession& session, const Token& token) {
    if (token.kind == Kind::Variable) return std::string(token.text.substr(1));
    return token.kind == Kind::QuotedName ? catalogued(session, token) : std::string(token.text);
}

/// The text from the first to the last of some tokens.
std::string_view span(const Token& first, const Token& last) noexcept {
    return {first.text.data(),
            static_cast<size_t>(last.text.data() + last.text.size() - first.text.data())};
}

std::vector<Argument> argumentsOf(const OdbcSession& session, const std::vector<Token>& tokens,
                                  size_t at) {
    std::vector<Argument> arguments;
    while (at < tokens.size()) {
        size_t end = at;
        for (int depth = 0; end < tokens.size() && (depth > 0 || tokens[end].text != ","); ++end) {
            if (tokens[end].text == "(" || tokens[end].text == "[") ++depth;
            if (tokens[end].text == ")" || tokens[end].text == "]") --depth;
        }
        Argument argument;
        const bool named = end > at + 1 && tokens[at + 1].text == "=" &&
                           (isName(tokens[at]) || tokens[at].kind == Kind::Variable);
        if (named) {
            argument.name = argumentName(session, tokens[at]);
            at += 2;
        }
        if (end == at || end + 1 == tokens.size()) {
            throw Error("42000", "EXECUTE: an argument has no value.");
        }
        argument.value = span(tokens[at], tokens[end - 1]);
        arguments.push_back(std::move(argument));
        at = end + 1;
    }
    return arguments;
}

/// The values of `arguments` in the order of the parameters.
std::vector<std::string_view> inOrder(const std::vector<Argument>& arguments,
                                      const std::vector<Parameter>& parameters,
                                      const std::string& procedure) {
    const auto refuse = [&procedure](const char* what, const std::string& name) {
        throw Error("42000",
                    "EXECUTE " + quoted(procedure) + ": " + what + " " + quoted(name) + ".");
    };
    std::vector<std::string_view> values(parameters.size());
    size_t position = 0;
    for (const Argument& argument : arguments) {
        size_t index = position++;
        if (!argument.name.empty()) {
            const auto found = std::find_if(parameters.begin(), parameters.end(),
                                            [&argument](const Parameter& parameter) {
                                                std::string_view name = parameter.name;
                                                if (name.starts_with('@')) name.remove_prefix(1);
                                                return sameWord(name, argument.name);
                                            });
            if (found == parameters.end()) refuse("there is no parameter", argument.name);
            index = static_cast<size_t>(found - parameters.begin());
        }
        if (index >= values.size()) {
            refuse("there is no parameter", std::to_string(index + 1));
        }
        if (!values[index].empty()) refuse("two values for", parameters[index].name);
        values[index] = argument.value;
    }
    for (size_t i = 0; i < values.size(); ++i) {
        if (values[i].empty()) refuse("no value for", parameters[i].name);
    }
    return values;
}

// ---- the table of parameters

struct TableColumn {
    std::string_view name;
    SQLSMALLINT sqlType;
};

constexpr TableColumn kColumns[] = {
    {"ProcedureName", SQL_WVARCHAR},
    {"ColumnName", SQL_WVARCHAR},
    {"OrdinalPosition", SQL_BIGINT},
    {"DataTypeName", SQL_WVARCHAR},
};

/// A question for the parameters of one procedure.
class ParameterQuery final : public Program {
  public:
    ParameterQuery(OdbcSession& session, std::vector<size_t> selected, std::string_view value)
        : m_session(session), m_selected(std::move(selected)) {
        if (value.starts_with('\'') || value.starts_with('"')) {
            m_name = unquoted(value);
        } else {
            m_marker = markedSql(value, session.dialect()).parameters;
        }
        for (const size_t index : m_selected) {
            Column column;
            column.name = kColumns[index].name;
            column.type = plain(kColumns[index].sqlType);
            column.nullable = SQL_NO_NULLS;
            m_columns.push_back(std::move(column));
        }
    }

    int parameterCount() override { return m_marker; }
    const std::vector<Column>& columns() override { return m_columns; }
    int columnCount() override { return static_cast<int>(m_columns.size()); }
    Outcome execute(ParameterSets& sets, const ExecutionOptions&) override;

  private:
    OdbcSession& m_session;
    const std::vector<size_t> m_selected;
    std::vector<Column> m_columns;
    std::string m_name;
    int m_marker = 0;  ///< of the name; 0: it stands in the text
};

Outcome ParameterQuery::execute(ParameterSets& sets, const ExecutionOptions&) {
    if (sets.count() > 1) {
        throw notSupported("A query cannot be executed with several parameter sets.");
    }
    sets.require(m_marker);
    sets.started(0);
    std::string name = m_name;
    if (m_marker > 0) name = sets.value(0, m_marker).bytes;
    const std::vector<Token> tokens = tokensOf(name, m_session.dialect());
    size_t end = 0;
    const auto parsed = takeName(m_session, tokens, end);
    auto rows = std::make_unique<StoredRows>(m_columns);
    const std::vector<Parameter> parameters = parsed && end == tokens.size()
                                                  ? parametersOf(m_session, *parsed)
                                                  : std::vector<Parameter>();
    const auto text = [](std::string_view value) {
        Cell cell;
        cell.kind = Cell::Kind::Text;
        cell.bytes = value;
        return cell;
    };
    std::int64_t ordinal = 0;
    for (const Parameter& parameter : parameters) {
        Cell position;
        position.kind = Cell::Kind::Integer;
        position.integer = ++ordinal;
        const Cell all[] = {text(name), text(parameter.name), position, text(parameter.typeName)};
        std::vector<Cell> row;
        for (const size_t index : m_selected) row.push_back(all[index]);
        rows->append(row);
    }
    sets.allSucceeded();
    Outcome outcome;
    outcome.rows = std::move(rows);
    return outcome;
}

/// The columns named between SELECT and FROM; nothing when one is not of the table.
std::optional<std::vector<size_t>> selectedColumns(const std::vector<Token>& tokens, size_t from) {
    std::vector<size_t> selected;
    for (size_t i = 1; i < from; ++i) {
        if (i % 2 == 0) {
            if (tokens[i].text != ",") return std::nullopt;
            continue;
        }
        if (tokens[i].text == "*") {
            for (size_t all = 0; all < std::size(kColumns); ++all) selected.push_back(all);
            continue;
        }
        const auto found =
            std::find_if(std::begin(kColumns), std::end(kColumns),
                         [&](const TableColumn& column) { return isWord(tokens[i], column.name); });
        if (found == std::end(kColumns)) return std::nullopt;
        selected.push_back(static_cast<size_t>(found - std::begin(kColumns)));
    }
    return from % 2 == 0 ? std::make_optional(std::move(selected)) : std::nullopt;
}

}  // namespace

std::optional<DriverCall> driverCall(OdbcSession& session, std::string_view sql) {
    const Dialect& dialect = session.dialect();
    {
        SqlScanner scanner(sql, dialect.syntax);
        const Token first = scanner.next();
        if (!isWord(first, "EXECUTE") && !isWord(first, "EXEC")) return std::nullopt;
    }
    const std::string numbered = numberedSql(sql, dialect);
    const std::vector<Token> tokens = tokensOf(numbered, dialect);
    size_t at = 1;
    if (at >= tokens.size() || isWord(tokens[at], "IMMEDIATE")) return std::nullopt;
    const auto name = takeName(session, tokens, at);
    if (!name) return std::nullopt;
    const std::string_view spelling = span(tokens[1], tokens[at - 1]);
    if (at < tokens.size() && (tokens[at].text == "(" || isWord(tokens[at], "USING"))) {
        return std::nullopt;
    }
    const std::vector<Argument> arguments = argumentsOf(session, tokens, at);
    std::vector<std::string_view> values;
    const bool named = std::any_of(arguments.begin(), arguments.end(),
                                   [](const Argument& argument) { return !argument.name.empty(); });
    if (named) {
        values = inOrder(arguments, parametersOf(session, *name), name->name);
    } else {
        for (const Argument& argument : arguments) values.push_back(argument.value);
    }
    std::string text = std::string(spelling) + "(";
    for (const std::string_view value : values) {
        if (value.data() != values.front().data()) text += ", ";
        text += value;
    }
    text += ')';
    return DriverCall{"{call " + text + "}", "CALL " + text};
}

std::unique_ptr<Program> prepareParameterQuery(OdbcSession& session, std::string_view sql) {
    // Most statements are let go without being read.
    const auto sameLetter = [](char a, char b) { return sameWord({&a, 1}, {&b, 1}); };
    if (std::search(sql.begin(), sql.end(), kTable.begin(), kTable.end(), sameLetter) == sql.end())
        return nullptr;
    const std::vector<Token> tokens = tokensOf(sql, session.dialect());
    const auto table = std::find_if(tokens.begin(), tokens.end(),
                                    [](const Token& token) { return isWord(token, kTable); });
    if (table == tokens.end()) return nullptr;
    const auto at = static_cast<size_t>(table - tokens.begin());
    const auto selected = at > 1 ? selectedColumns(tokens, at - 1) : std::nullopt;
    const bool understood = selected && isWord(tokens[0], "SELECT") &&
                            isWord(tokens[at - 1], "FROM") && tokens.size() == at + 5 &&
                            isWord(tokens[at + 1], "WHERE") &&
                            isWord(tokens[at + 2], "ProcedureName") && tokens[at + 3].text == "=" &&
                            (tokens[at + 4].kind == Kind::Marker ||
                             (tokens[at + 4].kind == Kind::String &&
                              kQuotes.find(tokens[at + 4].text.front()) != std::string_view::npos));
    if (!understood) {
        throw notSupported(std::string(kTable) + " can only be asked as SELECT columns FROM " +
                           std::string(kTable) + " WHERE ProcedureName = 'name'.");
    }
    return std::make_unique<ParameterQuery>(session, *selected, tokens[at + 4].text);
}

}  // namespace embedded
