#pragma once

#include <string>
#include <string_view>

namespace embedded {

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
