#include "odbc/procedures.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>
#include <vector>

#include "core/error.h"
#include "core/message.h"
#include "core/parameters.h"
#include "odbc/catalog.h"
#include "odbc/statement.h"
#include "sql/procedures.h"
#include "values/text.h"

namespace embedded {
namespace {

using Kind = SqlScanner::Kind;
using Token = SqlScanner::Token;

constexpr std::string_view kTable = kProcedureParametersTable;

bool isWord(const Token& token, std::string_view word) noexcept {
    return token.kind == Kind::Word && sameWord(token.text, word);
}

// ---- the catalogue

/// "schema.name", each part as it stands in the catalogue.
struct ProcedureName {
    Pattern qualifier;
    std::string name;
};

/// The name that comes, if one does. What is not quoted is folded as the server does.
std::optional<ProcedureName> takeName(const OdbcSession& session, SqlReader& reader) {
    const SQLUINTEGER fold = session.numberInfo(SQL_IDENTIFIER_CASE);
    std::vector<std::string> parts;
    do {
        if (!reader.isName()) return std::nullopt;
        const bool isQuoted = reader.token().kind == Kind::QuotedName;
        std::string part = reader.name("a procedure's name");
        if (!isQuoted && fold == SQL_IC_UPPER) part = upper(part);
        if (!isQuoted && fold == SQL_IC_LOWER) part = lower(part);
        parts.push_back(std::move(part));
    } while (reader.accept("."));
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
    search.what = Catalog::ProcedureColumns;
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
std::vector<ProcedureParameter> parametersOf(OdbcSession& session, const ProcedureName& name) {
    constexpr int kSchema = 1;
    constexpr int kName = 3;
    constexpr int kKind = 4;
    constexpr int kTypeName = 6;
    constexpr int kOrdinal = 17;
    std::unique_ptr<ResultSet> rows;
    try {
        rows = odbcCatalog(session, searchFor(session, name));
    } catch (const Error& error) {
        throw Error(error.state(),
                    "The driver has no catalogue of the parameters of procedures: " +
                        std::string(error.what()),
                    error.native());
    }
    std::vector<ProcedureParameter> parameters;
    std::string schema;
    std::int64_t last = 0;
    while (rows->next()) {
        const std::int64_t kind = rows->cell(kKind).integer;
        if (kind != SQL_PARAM_INPUT && kind != SQL_PARAM_INPUT_OUTPUT) continue;
        const std::int64_t ordinal =
            rows->columnCount() > kOrdinal ? rows->cell(kOrdinal).integer : last + 1;
        if (!parameters.empty() && (ordinal <= last || textOf(*rows, kSchema) != schema)) {
            throw notSupported("There are several procedures " + inQuotes(name.name) +
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

// ---- the table of parameters

/// A question for the parameters of one procedure.
class ParameterQuery final : public Program {
  public:
    /// The name stands in the text or, where that is null, is the value of a marker.
    ParameterQuery(OdbcSession& session, std::vector<size_t> selected,
                   std::optional<std::string> name, int marker)
        : m_session(session),
          m_selected(std::move(selected)),
          m_name(std::move(name)),
          m_marker(marker) {
        for (const size_t index : m_selected) {
            Column column;
            column.name = kProcedureParametersColumns[index].name;
            column.type = plain(kProcedureParametersColumns[index].sqlType);
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
    const std::optional<std::string> m_name;
    const int m_marker;  ///< 0: there is none
};

Outcome ParameterQuery::execute(ParameterSets& sets, const ExecutionOptions&) {
    if (sets.count() > 1) {
        throw notSupported("A query cannot be executed with several parameter sets.");
    }
    sets.require(m_marker);
    const std::string name = m_name ? *m_name : std::string(sets.value(0, m_marker).bytes);
    SqlReader reader(name, m_session.dialect().syntax);
    const auto parsed = takeName(m_session, reader);
    auto rows = std::make_unique<StoredRows>(m_columns);
    const std::vector<ProcedureParameter> parameters = parsed && reader.atEnd()
                                                           ? parametersOf(m_session, *parsed)
                                                           : std::vector<ProcedureParameter>();
    std::int64_t ordinal = 0;
    for (const ProcedureParameter& parameter : parameters) {
        const Cell all[] = {Cell::text(name), Cell::text(parameter.name), Cell::number(++ordinal),
                            Cell::text(parameter.type)};
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
            for (size_t all = 0; all < std::size(kProcedureParametersColumns); ++all)
                selected.push_back(all);
            continue;
        }
        const auto found = std::find_if(
            std::begin(kProcedureParametersColumns), std::end(kProcedureParametersColumns),
            [&](const SystemColumn& column) { return isWord(tokens[i], column.name); });
        if (found == std::end(kProcedureParametersColumns)) return std::nullopt;
        selected.push_back(static_cast<size_t>(found - std::begin(kProcedureParametersColumns)));
    }
    return from % 2 == 0 ? std::make_optional(std::move(selected)) : std::nullopt;
}

}  // namespace

std::optional<DriverCall> driverCall(OdbcSession& session, const StatementText& text) {
    const std::vector<Token>& all = text.tokens();
    if (all.empty() || (!isWord(all[0], "EXECUTE") && !isWord(all[0], "EXEC"))) return std::nullopt;
    const std::string numbered = text.numbered();
    SqlReader reader(numbered, text.syntax());
    acceptExecute(reader);
    if (reader.is("IMMEDIATE")) return std::nullopt;
    const size_t begin = reader.begin();
    const auto name = takeName(session, reader);
    if (!name || reader.is("(") || reader.is("USING")) return std::nullopt;
    std::string call = std::string(reader.from(begin)) + "(";
    const std::vector<Argument> arguments = parseArguments(reader, ArgumentValues::Any);
    std::vector<size_t> order(arguments.size());
    std::iota(order.begin(), order.end(), size_t{0});
    // Without names nobody has to be asked for the order.
    if (!arguments.empty() && !arguments.back().name.empty()) {
        order = matchArguments(name->name, parametersOf(session, *name), arguments);
    }
    for (size_t i = 0; i < order.size(); ++i) {
        call += (i == 0 ? "" : ", ") + arguments[order[i]].value;
    }
    call += ')';
    return DriverCall{"{call " + call + "}", "CALL " + call};
}

std::unique_ptr<Program> prepareParameterQuery(OdbcSession& session, const StatementText& text) {
    const std::vector<Token>& tokens = text.tokens();
    const auto table = std::find_if(tokens.begin(), tokens.end(),
                                    [](const Token& token) { return isWord(token, kTable); });
    if (table == tokens.end()) return nullptr;
    const auto at = static_cast<size_t>(table - tokens.begin());
    auto selected = at > 1 ? selectedColumns(tokens, at - 1) : std::nullopt;
    if (selected && isWord(tokens[0], "SELECT") && isWord(tokens[at - 1], "FROM") &&
        tokens.size() == at + 5 && isWord(tokens[at + 1], "WHERE") &&
        isWord(tokens[at + 2], "ProcedureName") && tokens[at + 3].text == "=") {
        const Token& value = tokens[at + 4];
        const bool isMarker = value.kind == Kind::Marker;
        const bool isString = value.text.front() == '\'' || value.text.front() == '"';
        auto name = value.kind == Kind::String && isString ? unquoted(value.text) : std::nullopt;
        if (isMarker || name) {
            return std::make_unique<ParameterQuery>(session, std::move(*selected), std::move(name),
                                                    text.marked().parameters);
        }
    }
    throw notSupported(std::string(kTable) + " can only be asked as SELECT columns FROM " +
                       std::string(kTable) + " WHERE ProcedureName = 'name'.");
}

}  // namespace embedded
