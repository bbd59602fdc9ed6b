#include "sql/reader.h"

#include "core/error.h"
#include "values/text.h"

namespace embedded {

std::optional<std::string> unquoted(std::string_view token) {
    const char close = token.front() == '[' ? ']' : token.front();
    if (token.size() < 2 || token.back() != close) return std::nullopt;
    std::string result;
    for (size_t i = 1; i + 1 < token.size(); ++i) {
        if (token[i] == close && ++i + 1 == token.size()) return std::nullopt;
        result += token[i];
    }
    return result;
}

void SqlReader::advance() noexcept {
    m_readTo = m_scanner.position();
    m_token = m_scanner.next();
    m_begin = atEnd() ? m_sql.size() : m_scanner.position() - m_token.text.size();
}

bool SqlReader::is(std::string_view word) const noexcept {
    return (m_token.kind == Kind::Word || m_token.kind == Kind::Punctuation) &&
           sameWord(m_token.text, word);
}

bool SqlReader::accept(std::string_view word) noexcept {
    if (!is(word)) return false;
    advance();
    return true;
}

void SqlReader::expect(std::string_view word) {
    if (!accept(word)) fail(std::string(word) + " expected");
}

bool SqlReader::isName() const noexcept {
    const bool isNumber = m_token.kind == Kind::Word && isDigit(m_token.text.front());
    return m_token.kind == Kind::QuotedName || (m_token.kind == Kind::Word && !isNumber);
}

std::string SqlReader::name(const std::string& what) {
    if (!isName()) fail(what + " expected");
    std::string result(m_token.text);
    if (m_token.kind == Kind::QuotedName) {
        auto content = unquoted(m_token.text);
        if (!content) fail("the quoted name does not end");
        if (content->empty()) fail(what + " expected");
        result = std::move(*content);
    }
    advance();
    return result;
}

void SqlReader::expectEnd() {
    while (accept(";")) {
    }
    if (!atEnd()) fail("end of the statement expected");
}

void SqlReader::fail(const std::string& what) const {
    throw Error("42000", "Syntax error " +
                             (atEnd() ? "at the end" : "near " + inQuotes(m_token.text)) + ": " +
                             what + ".");
}

}  // namespace embedded
