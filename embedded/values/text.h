#pragma once

#include <string>
#include <string_view>

namespace embedded {

/// Length of the longest prefix of `text`, at most `limit` bytes, that does not end inside a UTF-8
/// character. Text that is not UTF-8 is truncated at `limit` or up to three bytes before it.
size_t wholeCharacters(std::string_view text, size_t limit) noexcept;

constexpr bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

/// ASCII case-insensitive equality, as SQL keywords and SQLite's names compare.
bool sameWord(std::string_view a, std::string_view b) noexcept;

/// Upper-case and lower-case copies, ASCII letters only.
std::string upper(std::string_view text);
std::string lower(std::string_view text);

/// `text` without blanks, tabs and line ends at both ends.
std::string_view trimmed(std::string_view text) noexcept;

/// `text`, or what fits into `limit` bytes of it with an ellipsis behind.
std::string shortened(std::string text, size_t limit);

/// A value from the user's data as it appears in a message: quoted and short. Not named
/// `quoted`: of a std::string that may be the C++ library's.
std::string inQuotes(std::string_view value);

}  // namespace embedded
