#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "odbc/dialect.h"

namespace embedded {

/// Splits SQL text into tokens where a server of a dialect does, as far as that decides what is
/// code and what is a string, a quoted name or a comment. Blanks and comments are skipped.
class DialectScanner {
  public:
    enum class Kind {
        End,
        Word,    ///< keyword, name or number
        String,  ///< also dollar-quoted
        QuotedName,
        Marker,       ///< ? or @ followed by digits only
        Variable,     ///< any other name led by @
        Punctuation,  ///< one byte of anything else
    };

    struct Token {
        Kind kind = Kind::End;
        std::string_view text;
    };

    DialectScanner(std::string_view sql, const Dialect& dialect) noexcept
        : m_sql(sql), m_dialect(dialect) {}

    Token next() noexcept;

    /// Offset just behind the last token.
    size_t position() const noexcept { return m_pos; }

  private:
    char at(size_t offset) const noexcept { return offset < m_sql.size() ? m_sql[offset] : '\0'; }
    void skipBlanks() noexcept;
    size_t commentEnd() const noexcept;
    size_t wordEnd(size_t from) const noexcept;
    size_t quotedEnd(size_t open, char close, bool escapes) const noexcept;
    size_t dollarQuoteEnd() const noexcept;

    std::string_view m_sql;
    const Dialect& m_dialect;
    size_t m_pos = 0;
};

/// A statement with every marker written "?", as drivers want it.
struct MarkedSql {
    std::string text;
    std::vector<int> numbers;  ///< for every "?" the number of its parameter, from 1
    int parameters = 0;        ///< the largest number
};

/// `sql` with its markers "@1", "@2", … and "?" rewritten. A "?" counts on from the largest number
/// so far. Throws 07009 for a number beyond 65535, and 42000 for a marker "@1" within a
/// dollar-quoted string.
MarkedSql markedSql(std::string_view sql, const Dialect& dialect);

/// `sql` with every marker written as "@1 ", "@2 ", …, so that its parts may change places. Throws
/// as `markedSql`.
std::string numberedSql(std::string_view sql, const Dialect& dialect);

/// Whether one of the statements in `sql` is one that `pattern` describes.
bool isUnreadable(std::string_view sql, const UnreadableStatement& pattern,
                  const Dialect& dialect) noexcept;

/// What a statement does to the rows and to the transaction, by its first words.
enum class StatementKind {
    Other,
    Change,     ///< INSERT, UPDATE, DELETE, REPLACE, MERGE, or WITH
    Query,      ///< SELECT and what else leaves everything as it is
    Begin,      ///< BEGIN, START TRANSACTION
    Commit,     ///< COMMIT, END
    Rollback,   ///< ROLLBACK, ABORT
    Savepoint,  ///< SAVEPOINT, RELEASE, ROLLBACK TO
};

StatementKind kindOfStatement(std::string_view sql, const Dialect& dialect) noexcept;

}  // namespace embedded
