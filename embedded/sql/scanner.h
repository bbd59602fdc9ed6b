#pragma once

#include <string_view>

namespace embedded {

/// How a database reads SQL, as far as that decides what is code and what is a string, a quoted
/// name or a comment.
struct SqlSyntax {
    bool backslashEscapes = false;  ///< in all strings
    bool escapeStrings = false;     ///< E'…' has backslash escapes
    bool doubleQuotedStrings = false;
    bool backtickNames = false;
    bool bracketNames = false;
    bool doubledBrackets = false;  ///< "]]" is a bracket in such a name
    bool hashComments = false;
    bool dashNeedsBlank = false;     ///< "--1" is no comment
    bool returnEndsComment = false;  ///< a carriage return does, as a line feed does everywhere
    bool nestedComments = false;
    bool dollarQuotes = false;
    /// SQLite's own: the variables $a, :a, #a, a::b(c); markers ?1; blobs x'00', behind which a
    /// quote doubles nothing; byte order marks as blanks, vertical tabs only behind other blanks.
    bool sqlite = false;
};

inline constexpr SqlSyntax kSqliteSyntax{
    .backtickNames = true, .bracketNames = true, .sqlite = true};

/// Splits SQL text into tokens where a database does. Blanks and comments are skipped.
class SqlScanner {
  public:
    enum class Kind {
        End,
        Word,         ///< keyword, name or number
        String,       ///< also a blob, and a dollar-quoted text
        QuotedName,   ///< "…", `…` or […]
        Marker,       ///< ? or @ followed by digits only
        Variable,     ///< any other name led by @, in SQLite by :, $ or #, too
        Punctuation,  ///< one byte of anything else
    };

    struct Token {
        Kind kind = Kind::End;
        std::string_view text;
    };

    explicit SqlScanner(std::string_view sql, const SqlSyntax& syntax = kSqliteSyntax) noexcept
        : m_sql(sql), m_syntax(&syntax) {}

    Token next() noexcept;

    /// Offset just behind the last token.
    size_t position() const noexcept { return m_pos; }

  private:
    char at(size_t offset) const noexcept { return offset < m_sql.size() ? m_sql[offset] : '\0'; }
    void skipBlanks() noexcept;
    size_t blanksEnd() const noexcept;
    size_t commentEnd() const noexcept;
    size_t wordEnd(size_t from) const noexcept;
    size_t variableEnd(size_t from) const noexcept;
    size_t quotedEnd(size_t open, char close, bool doubles, bool escapes) const noexcept;
    size_t blobEnd() const noexcept;
    size_t dollarQuoteEnd() const noexcept;
    Token quoted(char first) noexcept;
    Token variable(char first) noexcept;
    Token take(Kind kind, size_t end) noexcept;

    std::string_view m_sql;
    const SqlSyntax* m_syntax;
    size_t m_pos = 0;
};

}  // namespace embedded
