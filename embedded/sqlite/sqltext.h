#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace embedded {

/// What one reading of a statement tells. All else SQLite says when it has compiled it.
struct SqliteText {
    /// The statement with every marker "@1", "@2", … written "?1", "?2", …: the spelling in which
    /// SQLite takes the number from the text, and counts a following "?" on from the largest number
    /// so far; or "?" where that gives the same. The length stays, and with it all offsets. Nothing
    /// when there is none.
    std::optional<std::string> respelled;
    bool inserts = false;  ///< its first word is INSERT or REPLACE
};

/// Reads a statement for SQLite. Throws for an ALTER that names a table of the runtime: SQLite does
/// not tell the schema's guard what a table is going to be called.
SqliteText readSql(std::string_view sql);

/// Whether LEFT, RIGHT or FULL stands in `sql`: an outer join can turn columns that are never NULL
/// into NULL.
bool mayJoinOuter(std::string_view sql) noexcept;

/// Whether the first word of `sql` can begin with one of these letters. Answers false only where
/// that takes no more than a look at the first character.
bool mayBeginWith(std::string_view letters, std::string_view sql) noexcept;

/// Whether `sql` holds nothing but blanks, comments and semicolons.
bool isBlankSql(std::string_view sql) noexcept;

}  // namespace embedded
