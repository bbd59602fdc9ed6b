#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "odbc/dialect.h"
#include "sql/scanner.h"

namespace embedded {

/// A statement with every marker written "?", as drivers want it.
struct MarkedSql {
    std::string text;
    std::vector<int> numbers;  ///< for every "?" the number of its parameter, from 1
    int parameters = 0;        ///< the largest number
    bool hasParts = false;     ///< there are semicolons in it
};

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

/// A statement's text, which must outlive it, split into tokens once; all that is to be known of it
/// is told by them.
class StatementText {
  public:
    using Kind = SqlScanner::Kind;
    using Token = SqlScanner::Token;

    StatementText(std::string_view sql, const Dialect& dialect);

    /// Without semicolons at the end.
    const std::vector<Token>& tokens() const noexcept { return m_tokens; }
    const SqlSyntax& syntax() const noexcept { return m_syntax; }

    StatementKind kind() const noexcept;

    /// Whether there are semicolons between its tokens: those of a block, or between statements.
    bool hasParts() const noexcept;
    /// Whether they are those of a block, as MariaDB has them outside of procedures, too.
    bool isBlock() const noexcept;
    /// Whether BEGIN NOT ATOMIC opens that.
    bool isAnonymousBlock() const noexcept;

    /// Whether one of its statements is one that `pattern` describes.
    bool has(const StatementPattern& pattern) const;

    /// The text with its markers "@1", "@2", … and "?" rewritten. A "?" counts on from the largest
    /// number so far. Throws 07009 for a number beyond 65535, and 42000 for a marker "@1" within a
    /// dollar-quoted string.
    MarkedSql marked() const;

    /// The text with every marker written as "@1 ", "@2 ", …, so that its parts may change places.
    /// Throws as `marked`.
    std::string numbered() const;

  private:
    template <class Spell>
    MarkedSql respelled(Spell&& spell) const;
    WordPair pairAt(size_t index) const noexcept;
    StatementKind kindOfEnd(StatementKind kind) const noexcept;

    std::string_view m_sql;
    const SqlSyntax& m_syntax;
    std::vector<Token> m_tokens;
};

}  // namespace embedded
