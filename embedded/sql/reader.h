#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sql/scanner.h"

namespace embedded {

/// What stands between the quotes of a name or a string, doubled ones taken once; nothing when it
/// does not end.
std::optional<std::string> unquoted(std::string_view token);

/// SQL text read token by token, one ahead. A copy is a look further ahead.
class SqlReader {
  public:
    using Kind = SqlScanner::Kind;
    using Token = SqlScanner::Token;

    explicit SqlReader(std::string_view sql, const SqlSyntax& syntax = kSqliteSyntax) noexcept
        : m_sql(sql), m_scanner(sql, syntax) {
        advance();
    }

    const Token& token() const noexcept { return m_token; }
    bool atEnd() const noexcept { return m_token.kind == Kind::End; }

    /// Offset of the first byte of the current token.
    size_t begin() const noexcept { return m_begin; }
    /// The text from `offset` to the end of the token in front of the current one.
    std::string_view from(size_t offset) const noexcept {
        return m_readTo > offset ? m_sql.substr(offset, m_readTo - offset) : std::string_view();
    }

    void advance() noexcept;

    /// Whether the current token is this keyword or punctuation.
    bool is(std::string_view word) const noexcept;
    bool accept(std::string_view word) noexcept;
    void expect(std::string_view word);

    /// A plain or quoted name. Throws, saying `what` was expected, when none is there.
    std::string name(const std::string& what);
    bool isName() const noexcept;

    /// The end of the statement, semicolons in front of it aside.
    void expectEnd();

    /// Throws 42000 with the place of the current token.
    [[noreturn]] void fail(const std::string& what) const;

  private:
    std::string_view m_sql;
    SqlScanner m_scanner;
    Token m_token;
    size_t m_begin = 0;
    size_t m_readTo = 0;  ///< behind the last token read
};

}  // namespace embedded
