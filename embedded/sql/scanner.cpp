#include "sql/scanner.h"

#include <algorithm>
#include <array>

#include "values/text.h"

namespace embedded {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

/// Of bytes, found faster than compared: each statement is read before the engine reads it.
using ByteSet = std::array<bool, 256>;

constexpr ByteSet setOf(std::string_view bytes) noexcept {
    ByteSet set{};
    for (const char c : bytes) set[static_cast<unsigned char>(c)] = true;
    return set;
}

/// Letters of other alphabets are bytes from 0x80 on.
constexpr ByteSet kNameCharacters = [] {
    ByteSet set = setOf("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz");
    std::fill(set.begin() + 0x80, set.end(), true);
    return set;
}();
constexpr ByteSet kBlanks = setOf(" \t\r\n\f\v");
/// What blanks and comments begin with.
constexpr ByteSet kSkipped = setOf(" \t\r\n\f\v\xEF-#/");
/// Letters that may begin a string.
constexpr ByteSet kPrefixes = setOf("xXeE");

bool isIn(const ByteSet& set, char c) noexcept {
    return set[static_cast<unsigned char>(c)];
}

bool isNameCharacter(char c) noexcept {
    return isIn(kNameCharacters, c);
}

bool isBlank(char c) noexcept {
    return isIn(kBlanks, c);
}

}  // namespace

// ---- blanks and comments

size_t SqlScanner::blanksEnd() const noexcept {
    if (m_syntax->sqlite) {
        if (m_sql.substr(m_pos).starts_with(kByteOrderMark)) return m_pos + kByteOrderMark.size();
        if (at(m_pos) == '\v') return m_pos;
    }
    size_t end = m_pos;
    while (isBlank(at(end))) ++end;
    return end;
}

size_t SqlScanner::commentEnd() const noexcept {
    const char first = at(m_pos);
    const char second = at(m_pos + 1);
    if (first == '-' || first == '#') {
        const bool blankBehind = m_pos + 2 >= m_sql.size() || isBlank(at(m_pos + 2));
        const bool line = first == '#'
                              ? m_syntax->hashComments
                              : second == '-' && (!m_syntax->dashNeedsBlank || blankBehind);
        if (!line) return m_pos;
        const char* const ends = m_syntax->returnEndsComment ? "\r\n" : "\n";
        return std::min(m_sql.find_first_of(ends, m_pos), m_sql.size());
    }
    if (first != '/' || second != '*' || m_pos + 2 == m_sql.size()) return m_pos;
    size_t depth = 1;
    size_t i = m_pos + 2;
    while (i < m_sql.size() && depth > 0) {
        if (at(i) == '*' && at(i + 1) == '/') {
            --depth;
            i += 2;
        } else if (m_syntax->nestedComments && at(i) == '/' && at(i + 1) == '*') {
            ++depth;
            i += 2;
        } else {
            ++i;
        }
    }
    return i;
}

void SqlScanner::skipBlanks() noexcept {
    while (isIn(kSkipped, at(m_pos))) {
        size_t end = blanksEnd();
        if (end == m_pos) end = commentEnd();
        if (end == m_pos) return;
        m_pos = end;
    }
}

// ---- the ends of tokens

size_t SqlScanner::wordEnd(size_t from) const noexcept {
    const bool dollars = m_syntax->dollarQuotes || m_syntax->sqlite;
    while (isNameCharacter(at(from)) || (at(from) == '$' && dollars)) ++from;
    return from;
}

// SQLite takes "::" for a part of the name, and "(…)" without a blank inside for its end.
size_t SqlScanner::variableEnd(size_t from) const noexcept {
    size_t end = wordEnd(from);
    while (m_sql.substr(end).starts_with("::")) end = wordEnd(end + 2);
    if (at(end) != '(' || end == from) return end;
    while (++end < m_sql.size() && !isBlank(at(end))) {
        if (at(end) == ')') return end + 1;
    }
    return end;
}

size_t SqlScanner::quotedEnd(size_t open, char close, bool doubles, bool escapes) const noexcept {
    for (size_t i = open + 1; i < m_sql.size(); ++i) {
        if (escapes && m_sql[i] == '\\') {
            ++i;
        } else if (m_sql[i] == close) {
            if (!doubles || at(i + 1) != close) return i + 1;
            ++i;
        }
    }
    return m_sql.size();
}

/// Behind the x'…' that starts here; here when none does.
size_t SqlScanner::blobEnd() const noexcept {
    const std::string_view rest = m_sql.substr(m_pos);
    if (!rest.starts_with("x'") && !rest.starts_with("X'")) return m_pos;
    const size_t close = rest.find_first_not_of("0123456789abcdefABCDEF", 2);
    const bool whole = close != std::string_view::npos && close % 2 == 0 && rest[close] == '\'';
    return whole ? m_pos + close + 1 : m_pos;
}

/// Behind the $tag$…$tag$ that starts here; here when none does.
size_t SqlScanner::dollarQuoteEnd() const noexcept {
    size_t tagEnd = m_pos + 1;
    while (isNameCharacter(at(tagEnd))) ++tagEnd;
    if (at(tagEnd) != '$' || isDigit(at(m_pos + 1))) return m_pos;
    const std::string_view tag = m_sql.substr(m_pos, tagEnd + 1 - m_pos);
    const size_t close = m_sql.find(tag, tagEnd + 1);
    return close == std::string_view::npos ? m_sql.size() : close + tag.size();
}

// ---- tokens

SqlScanner::Token SqlScanner::take(Kind kind, size_t end) noexcept {
    const size_t start = m_pos;
    m_pos = std::min(end, m_sql.size());
    return {kind, m_sql.substr(start, m_pos - start)};
}

/// A string or a quoted name; the end when `first` starts neither.
SqlScanner::Token SqlScanner::quoted(char first) noexcept {
    const bool escapes = m_syntax->backslashEscapes;
    switch (first) {
        case '\'':
            return take(Kind::String, quotedEnd(m_pos, first, true, escapes));
        case '"':
            return m_syntax->doubleQuotedStrings
                       ? take(Kind::String, quotedEnd(m_pos, first, true, escapes))
                       : take(Kind::QuotedName, quotedEnd(m_pos, first, true, false));
        case '`':
            if (!m_syntax->backtickNames) return {};
            return take(Kind::QuotedName, quotedEnd(m_pos, first, true, false));
        case '[':
            if (!m_syntax->bracketNames) return {};
            return take(Kind::QuotedName, quotedEnd(m_pos, ']', m_syntax->doubledBrackets, false));
        case '$':
            if (const size_t end = m_syntax->dollarQuotes ? dollarQuoteEnd() : m_pos;
                end != m_pos) {
                return take(Kind::String, end);
            }
            return {};
        case 'x':
        case 'X':
            if (const size_t end = m_syntax->sqlite ? blobEnd() : m_pos; end != m_pos) {
                return take(Kind::String, end);
            }
            return {};
        case 'e':
        case 'E':
            if (!m_syntax->escapeStrings || at(m_pos + 1) != '\'') return {};
            return take(Kind::String, quotedEnd(m_pos + 1, '\'', true, true));
        default:
            return {};
    }
}

/// A marker or a variable; the end when `first` starts neither.
SqlScanner::Token SqlScanner::variable(char first) noexcept {
    size_t end = m_pos + 1;
    if (first == '?') {
        while (m_syntax->sqlite && isDigit(at(end))) ++end;
        return take(Kind::Marker, end);
    }
    const bool leads =
        first == '@' || (m_syntax->sqlite && (first == ':' || first == '$' || first == '#'));
    if (!leads) return {};
    size_t digits = end;
    while (first == '@' && isDigit(at(digits))) ++digits;
    if (m_syntax->sqlite) {
        const size_t named = variableEnd(end);
        if (named == end) return {};
        return take(named == digits ? Kind::Marker : Kind::Variable, named);
    }
    if (digits > end && !isNameCharacter(at(digits))) return take(Kind::Marker, digits);
    while (at(end) == '@') ++end;
    return take(Kind::Variable, wordEnd(end));
}

SqlScanner::Token SqlScanner::next() noexcept {
    skipBlanks();
    if (m_pos >= m_sql.size()) return {};
    const char first = m_sql[m_pos];
    if (isNameCharacter(first) && !isIn(kPrefixes, first)) return take(Kind::Word, wordEnd(m_pos));
    if (const Token token = quoted(first); token.kind != Kind::End) return token;
    if (const Token token = variable(first); token.kind != Kind::End) return token;
    if (isNameCharacter(first)) return take(Kind::Word, wordEnd(m_pos));
    return take(Kind::Punctuation, m_pos + 1);
}

}  // namespace embedded
