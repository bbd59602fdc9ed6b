#include "odbc/scanner.h"

#include <sql.h>
#include <algorithm>
#include <charconv>

#include <limits>

#include "core/error.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr std::string_view kBlanks = " \t\r\n\f\v";

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

/// Letters of other alphabets are bytes from 0x80 on.
bool isNameCharacter(char c) noexcept {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           static_cast<unsigned char>(c) >= 0x80;
}

/// A token and the one behind it.
WordPair nextPair(DialectScanner& scanner, std::string_view first) noexcept {
    return {first, scanner.next().text};
}

bool matches(const WordPair& words, const WordPair& pattern) noexcept {
    return sameWord(words.first, pattern.first) &&
           (pattern.second.empty() || sameWord(words.second, pattern.second));
}

}  // namespace

size_t DialectScanner::commentEnd() const noexcept {
    const char first = at(m_pos);
    const char second = at(m_pos + 1);
    const bool blankBehind =
        m_pos + 2 >= m_sql.size() || kBlanks.find(at(m_pos + 2)) != std::string_view::npos;
    const bool line =
        (first == '-' && second == '-' && (!m_dialect.dashNeedsBlank || blankBehind)) ||
        (first == '#' && m_dialect.hashComments);
    if (line) {
        const char* const ends = m_dialect.returnEndsComment ? "\r\n" : "\n";
        return std::min(m_sql.find_first_of(ends, m_pos), m_sql.size());
    }
    if (first != '/' || second != '*') return m_pos;
    size_t depth = 1;
    size_t i = m_pos + 2;
    while (i < m_sql.size() && depth > 0) {
        if (at(i) == '*' && at(i + 1) == '/') {
            --depth;
            i += 2;
        } else if (m_dialect.nestedComments && at(i) == '/' && at(i + 1) == '*') {
            ++depth;
            i += 2;
        } else {
            ++i;
        }
    }
    return i;
}

void DialectScanner::skipBlanks() noexcept {
    for (;;) {
        m_pos = std::min(m_sql.find_first_not_of(kBlanks, m_pos), m_sql.size());
        const size_t end = commentEnd();
        if (end == m_pos) return;
        m_pos = end;
    }
}

size_t DialectScanner::wordEnd(size_t from) const noexcept {
    while (isNameCharacter(at(from)) || (at(from) == '$' && m_dialect.dollarQuotes)) ++from;
    return from;
}

size_t DialectScanner::quotedEnd(size_t open, char close, bool escapes) const noexcept {
    for (size_t i = open + 1; i < m_sql.size(); ++i) {
        if (escapes && m_sql[i] == '\\') {
            ++i;
        } else if (m_sql[i] == close) {
            if (at(i + 1) != close) return i + 1;
            ++i;
        }
    }
    return m_sql.size();
}

/// Behind the $tag$…$tag$ that starts here; here when none does.
size_t DialectScanner::dollarQuoteEnd() const noexcept {
    size_t tagEnd = m_pos + 1;
    while (isNameCharacter(at(tagEnd))) ++tagEnd;
    if (at(tagEnd) != '$' || isDigit(at(m_pos + 1))) return m_pos;
    const std::string_view tag = m_sql.substr(m_pos, tagEnd + 1 - m_pos);
    const size_t close = m_sql.find(tag, tagEnd + 1);
    return close == std::string_view::npos ? m_sql.size() : close + tag.size();
}

DialectScanner::Token DialectScanner::next() noexcept {
    skipBlanks();
    if (m_pos == m_sql.size()) return {};
    const size_t start = m_pos;
    const auto token = [&](Kind kind, size_t end) {
        m_pos = std::min(end, m_sql.size());
        return Token{kind, m_sql.substr(start, m_pos - start)};
    };
    const char c = m_sql[start];
    switch (c) {
        case '\'':
            return token(Kind::String, quotedEnd(start, c, m_dialect.backslashEscapes));
        case '"':
            return token(
                m_dialect.doubleQuotedStrings ? Kind::String : Kind::QuotedName,
                quotedEnd(start, c, m_dialect.backslashEscapes && m_dialect.doubleQuotedStrings));
        case '`':
            if (m_dialect.backtickNames) return token(Kind::QuotedName, quotedEnd(start, c, false));
            break;
        case '[':
            if (m_dialect.bracketNames)
                return token(Kind::QuotedName, quotedEnd(start, ']', false));
            break;
        case '$':
            if (m_dialect.dollarQuotes) {
                const size_t end = dollarQuoteEnd();
                if (end != start) return token(Kind::String, end);
            }
            break;
        case '?':
            return token(Kind::Marker, start + 1);
        case '@': {
            size_t end = start + 1;
            while (isDigit(at(end))) ++end;
            const bool marker = end > start + 1 && !isNameCharacter(at(end));
            if (marker) return token(Kind::Marker, end);
            while (at(end) == '@') ++end;
            return token(Kind::Variable, wordEnd(end));
        }
        default:
            break;
    }
    if (!isNameCharacter(c)) return token(Kind::Punctuation, start + 1);
    const bool escapeString =
        m_dialect.escapeStrings && (c == 'E' || c == 'e') && at(start + 1) == '\'';
    if (escapeString) return token(Kind::String, quotedEnd(start + 1, '\'', true));
    return token(Kind::Word, wordEnd(start));
}

/// Callers that number markers themselves do not know this kind of string, and have changed what
/// stood in it: it must not reach the server.
void refuseMarkers(std::string_view dollarQuoted) {
    for (size_t at = dollarQuoted.find('@'); at != std::string_view::npos;
         at = dollarQuoted.find('@', at + 1)) {
        if (at + 1 < dollarQuoted.size() && isDigit(dollarQuoted[at + 1])) {
            throw Error("42000",
                        "A dollar-quoted text contains a parameter marker; put the text into "
                        "single quotes.");
        }
    }
}

/// `sql` with what `spell` makes of their numbers in place of its markers.
template <class Spell>
MarkedSql respelled(std::string_view sql, const Dialect& dialect, Spell&& spell) {
    MarkedSql result;
    result.text.reserve(sql.size());
    DialectScanner scanner(sql, dialect);
    size_t copied = 0;
    for (auto token = scanner.next(); token.kind != DialectScanner::Kind::End;
         token = scanner.next()) {
        if (token.text.front() == '$') refuseMarkers(token.text);
        if (token.kind != DialectScanner::Kind::Marker) continue;
        constexpr int kMost = std::numeric_limits<SQLUSMALLINT>::max();
        int number = result.parameters + 1;
        if (token.text.size() > 1) {
            const char* const end = token.text.data() + token.text.size();
            const auto parsed = std::from_chars(token.text.data() + 1, end, number);
            if (parsed.ec != std::errc{}) number = 0;
        }
        if (number < 1 || number > kMost) {
            throw Error("07009", "The marker " + std::string(token.text) + " has no valid number.",
                        native::kRange);
        }
        const size_t start = scanner.position() - token.text.size();
        result.text += sql.substr(copied, start - copied);
        result.text += spell(number);
        copied = scanner.position();
        result.numbers.push_back(number);
        result.parameters = std::max(result.parameters, number);
    }
    result.text += sql.substr(copied);
    return result;
}

MarkedSql markedSql(std::string_view sql, const Dialect& dialect) {
    return respelled(sql, dialect, [](int) { return '?'; });
}

std::string numberedSql(std::string_view sql, const Dialect& dialect) {
    const auto spell = [](int number) { return "@" + std::to_string(number) + " "; };
    return respelled(sql, dialect, spell).text;
}

bool isUnreadable(std::string_view sql, const UnreadableStatement& pattern,
                  const Dialect& dialect) noexcept {
    const bool several = sql.find(';') != std::string_view::npos;
    DialectScanner scanner(sql, dialect);
    for (std::string_view first = scanner.next().text; !first.empty();
         first = scanner.next().text) {
        if (first == ";") continue;
        WordPair words = nextPair(scanner, first);
        const bool started = matches(words, pattern.start);
        if (started && pattern.inside.first.empty()) return true;
        if (!started && !several) return false;
        while (!words.second.empty() && words.second != ";") {
            words = nextPair(scanner, words.second);
            if (started && matches(words, pattern.inside)) return true;
        }
    }
    return false;
}

/// The kind of a COMMIT or ROLLBACK, which may go back to a savepoint or begin anew.
StatementKind kindOfEnd(StatementKind kind, std::string_view sql, const Dialect& dialect) noexcept {
    DialectScanner scanner(sql, dialect);
    bool stays = false;
    for (auto token = scanner.next(); !token.text.empty(); token = scanner.next()) {
        if (sameWord(token.text, "TO")) return StatementKind::Savepoint;
        if (sameWord(token.text, "CHAIN") && !stays) return StatementKind::Begin;
        stays = sameWord(token.text, "NO");
    }
    return kind;
}

StatementKind kindOfStatement(std::string_view sql, const Dialect& dialect) noexcept {
    struct Entry {
        WordPair words;
        StatementKind kind;
    };
    using enum StatementKind;
    static constexpr Entry kEntries[] = {
        {{"SELECT", ""}, Query},
        {{"VALUES", ""}, Query},
        {{"SHOW", ""}, Query},
        {{"EXPLAIN", ""}, Query},
        {{"INSERT", ""}, Change},
        {{"UPDATE", ""}, Change},
        {{"DELETE", ""}, Change},
        {{"REPLACE", ""}, Change},
        {{"MERGE", ""}, Change},
        {{"WITH", ""}, Change},
        {{"START", "TRANSACTION"}, Begin},
        {{"BEGIN", ""}, Begin},
        {{"COMMIT", ""}, Commit},
        {{"END", ""}, Commit},
        {{"ABORT", ""}, Rollback},
        {{"ROLLBACK", ""}, Rollback},
        {{"SAVEPOINT", ""}, Savepoint},
        {{"RELEASE", ""}, Savepoint},
    };
    DialectScanner scanner(sql, dialect);
    const WordPair words = nextPair(scanner, scanner.next().text);
    for (const Entry& entry : kEntries) {
        if (matches(words, entry.words))
            return entry.kind == Commit || entry.kind == Rollback
                       ? kindOfEnd(entry.kind, sql, dialect)
                       : entry.kind;
    }
    return Other;
}

}  // namespace embedded
