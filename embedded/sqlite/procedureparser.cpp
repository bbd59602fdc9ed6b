#include "sqlite/procedureparser.h"

#include <algorithm>

#include "core/error.h"
#include "core/message.h"
#include "sql/scanner.h"
#include "sqlite/sqltext.h"
#include "values/text.h"

namespace embedded {
namespace {

using Kind = SqlScanner::Kind;
using Token = SqlScanner::Token;

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

/// A text read token by token, one ahead.
class Reader {
  public:
    explicit Reader(std::string_view sql) noexcept : m_sql(sql), m_scanner(sql) { advance(); }

    const Token& token() const noexcept { return m_token; }
    bool atEnd() const noexcept { return m_token.kind == Kind::End; }

    /// Offsets of the first byte of the current token and behind the last one read.
    size_t begin() const noexcept { return m_begin; }
    size_t readTo() const noexcept { return m_readTo; }
    std::string_view from(size_t offset) const noexcept {
        return m_sql.substr(offset, m_readTo - offset);
    }

    void advance() noexcept {
        m_readTo = m_scanner.position();
        m_token = m_scanner.next();
        m_begin = atEnd() ? m_sql.size() : m_scanner.position() - m_token.text.size();
    }
    bool is(std::string_view word) const noexcept {
        return (m_token.kind == Kind::Word || m_token.kind == Kind::Punctuation) &&
               sameWord(m_token.text, word);
    }
    bool accept(std::string_view word) noexcept {
        if (!is(word)) return false;
        advance();
        return true;
    }
    void expect(std::string_view word) {
        if (!accept(word)) fail(std::string(word) + " expected");
    }
    [[noreturn]] void fail(const std::string& what) const {
        throw Error("42000", "Syntax error " +
                                 (atEnd() ? "at the end" : "near " + quoted(m_token.text)) + ": " +
                                 what + ".");
    }

    /// A plain or quoted name.
    std::string name(const std::string& what) {
        std::string result;
        if (m_token.kind == Kind::Word && !isDigit(m_token.text.front())) {
            result = m_token.text;
        } else if (m_token.kind == Kind::QuotedName) {
            result = unquoted();
        }
        if (result.empty()) fail(what + " expected");
        advance();
        return result;
    }

    /// The name of a parameter, plain or as a variable ($a, @a, :a). Quotes do not make names
    /// possible that a body could not write behind a $.
    std::string parameterName() {
        const Reader before = *this;
        std::string result;
        if (m_token.kind == Kind::Variable) {
            result = m_token.text.substr(1);
            advance();
        } else {
            result = name("a parameter's name");
        }
        SqlScanner scanner(result);
        const Token word = scanner.next();
        if (word.kind != Kind::Word || word.text != result || isDigit(result.front())) {
            before.fail("no name for a parameter");
        }
        return result;
    }

  private:
    std::string unquoted() const {
        const std::string_view text = m_token.text;
        const char close = text.front() == '[' ? ']' : text.front();
        if (text.size() < 2 || text.back() != close) fail("the quoted name does not end");
        std::string result;
        for (size_t i = 1; i + 1 < text.size(); ++i) {
            if (text[i] == close && (++i + 1 == text.size())) fail("the quoted name does not end");
            result += text[i];
        }
        return result;
    }

    std::string_view m_sql;
    SqlScanner m_scanner;
    Token m_token;
    size_t m_begin = 0;
    size_t m_readTo = 0;
};

/// A number without sign: digits with at most one point and an exponent, or 0x and hexadecimal
/// digits. Whether it is a good one is left to SQLite.
bool isNumber(std::string_view text) noexcept {
    if (text.empty()) return false;
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
    return isDigit(text.front()) || (text.size() > 1 && isDigit(text[1]));
}

/// Whether `text` is a literal or a variable: nothing that could compute or read anything.
bool isValue(std::string_view text) noexcept {
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

std::string argumentValue(Reader& reader) {
    const Reader before = reader;
    const size_t begin = reader.begin();
    while (!reader.atEnd() && !reader.is(",") && !reader.is(";")) reader.advance();
    const std::string_view value = reader.begin() == begin ? "" : reader.from(begin);
    if (!isValue(value)) before.fail("a literal or a parameter marker expected");
    return std::string(value);
}

void expectEnd(Reader& reader) {
    while (reader.accept(";")) {
    }
    if (!reader.atEnd()) reader.fail("end of the statement expected");
}

ProcedureCall parseCall(Reader& reader) {
    ProcedureCall call{.name = reader.name("a procedure's name"), .arguments = {}};
    if (reader.atEnd() || reader.is(";")) {
        expectEnd(reader);
        return call;
    }
    do {
        ProcedureCall::Argument argument;
        Reader ahead = reader;
        ahead.advance();
        if (ahead.is("=")) {
            argument.name = reader.parameterName();
            reader.advance();
        } else if (!call.arguments.empty() && !call.arguments.back().name.empty()) {
            reader.fail("an argument without a name cannot follow one with a name");
        }
        argument.value = argumentValue(reader);
        call.arguments.push_back(std::move(argument));
    } while (reader.accept(","));
    expectEnd(reader);
    return call;
}

/// The type of a parameter: words, and numbers in parentheses behind them.
std::string parameterType(Reader& reader) {
    if (reader.token().kind != Kind::Word) return {};
    const size_t begin = reader.begin();
    while (reader.token().kind == Kind::Word) reader.advance();
    if (reader.accept("(")) {
        while (reader.token().kind == Kind::Word || reader.is(",")) reader.advance();
        reader.expect(")");
    }
    return std::string(reader.from(begin));
}

std::vector<ProcedureParameter> parseParameters(Reader& reader) {
    std::vector<ProcedureParameter> parameters;
    if (!reader.accept("(") || reader.accept(")")) return parameters;
    do {
        std::string name = reader.parameterName();
        for (const ProcedureParameter& earlier : parameters) {
            if (sameWord(earlier.name, name)) {
                throw Error("42000", "Two parameters are named " + quoted(name) + ".");
            }
        }
        parameters.push_back({std::move(name), parameterType(reader)});
    } while (reader.accept(","));
    reader.expect(")");
    return parameters;
}

/// Reads to the end of a CREATE TRIGGER statement: the first END that follows a semicolon.
void skipTrigger(Reader& reader) noexcept {
    bool behindSemicolon = false;
    while (!reader.atEnd()) {
        if (behindSemicolon && reader.accept("END")) return;
        behindSemicolon = reader.is(";");
        reader.advance();
    }
}

bool startsTrigger(Reader reader) noexcept {
    if (!reader.accept("CREATE")) return false;
    if (!reader.accept("TEMP")) reader.accept("TEMPORARY");
    return reader.is("TRIGGER");
}

std::vector<std::string> parseBody(Reader& reader) {
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

ProcedureDefinition parseDefinition(Reader& reader, bool replaces) {
    ProcedureDefinition definition;
    definition.replaces = replaces;
    definition.name = reader.name("a procedure's name");
    definition.parameters = parseParameters(reader);
    reader.expect("AS");
    definition.body = parseBody(reader);
    return definition;
}

ProcedureRemoval parseRemoval(Reader& reader) {
    ProcedureRemoval removal;
    Reader ahead = reader;
    if (ahead.accept("IF") && ahead.accept("EXISTS")) {
        removal.ifExists = true;
        reader = ahead;
    }
    removal.name = reader.name("a procedure's name");
    expectEnd(reader);
    return removal;
}

}  // namespace

std::optional<size_t> ProcedureDefinition::indexOf(std::string_view parameter) const noexcept {
    for (size_t i = 0; i < parameters.size(); ++i) {
        if (sameWord(parameters[i].name, parameter)) return i;
    }
    return std::nullopt;
}

std::optional<ProcedureCommand> parseProcedureCommand(std::string_view sql) {
    // Terminating characters that the caller counted in are no part of the statement.
    Reader reader(sql.substr(0, sql.find_last_not_of('\0') + 1));
    while (reader.accept(";")) {
    }
    if (reader.accept("EXECUTE") || reader.accept("EXEC")) return parseCall(reader);
    if (reader.accept("DROP") && reader.accept("PROCEDURE")) return parseRemoval(reader);
    if (reader.accept("CREATE")) {
        const bool replaces = reader.accept("OR") && reader.accept("REPLACE");
        if (reader.accept("PROCEDURE")) return parseDefinition(reader, replaces);
    }
    return std::nullopt;
}

}  // namespace embedded
