#pragma once

#include <string>
#include <string_view>

namespace embedded {

/// Splits SQL text into tokens exactly where SQLite does, as far as that decides what is code and
/// what is a string, a quoted name or a comment. Blanks and comments are skipped.
class SqlScanner {
  public:
    enum class Kind {
        End,
        Word,         ///< keyword, name or number
        String,       ///< '…', quotes doubled inside, a backslash means nothing; or x'…'
        QuotedName,   ///< "…", `…` or […]
        Marker,       ///< ? or @ followed by digits only
        Variable,     ///< any other name led by @, :, $ or #
        Punctuation,  ///< one byte of anything else
    };

    struct Token {
        Kind kind = Kind::End;
        std::string_view text;
    };

    explicit SqlScanner(std::string_view sql) noexcept : m_sql(sql) {}

    Token next() noexcept;

    /// Offset just behind the last token.
    size_t position() const noexcept { return m_pos; }

  private:
    void skipBlanks() noexcept;
    size_t wordEnd(size_t from) const noexcept;
    size_t variableEnd(size_t from) const noexcept;
    size_t blobEnd() const noexcept;
    size_t quotedEnd(char close) const noexcept;

    std::string_view m_sql;
    size_t m_pos = 0;
};

/// `sql` with every marker "@1", "@2", … written "?1", "?2", …: the spelling in which SQLite takes
/// the number from the text, and counts a following "?" on from the largest number so far; or "?"
/// where that gives the same. The text keeps its length, so offsets into either are the same.
std::string numberedMarkers(std::string_view sql);

/// Whether `sql` holds nothing but blanks, comments and semicolons.
bool isBlankSql(std::string_view sql) noexcept;

/// Whether one of the words LEFT, RIGHT or FULL stands in `sql` outside strings and names, which is
/// where an outer join can turn columns that are never NULL into NULL.
bool mayJoinOuter(std::string_view sql) noexcept;

/// What a statement does, by its first word. It decides how rows are counted, whether the compiled
/// form is worth keeping and whether it opens a transaction; SQLite itself decides everything else.
enum class Verb {
    Query,        ///< SELECT, VALUES
    With,         ///< WITH, in front of a query or a change
    Change,       ///< INSERT, REPLACE, UPDATE, DELETE
    Transaction,  ///< BEGIN, COMMIT, END, SAVEPOINT, RELEASE
    Rollback,     ///< ROLLBACK
    Pragma,       ///< PRAGMA
    Service,      ///< EXPLAIN, ATTACH, DETACH, VACUUM: no implicit transaction
    Other,        ///< CREATE, ALTER, DROP and the rest
};

Verb verbOf(std::string_view sql) noexcept;

/// Whether the first word is INSERT or REPLACE.
bool isInsert(std::string_view sql) noexcept;

}  // namespace embedded
