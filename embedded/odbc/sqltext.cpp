#include "odbc/sqltext.h"

#include <sql.h>

#include <algorithm>
#include <charconv>
#include <limits>

#include "core/error.h"
#include "values/text.h"

namespace embedded {
namespace {

bool matches(const WordPair& words, const WordPair& pattern) noexcept {
    return sameWord(words.first, pattern.first) &&
           (pattern.second.empty() || sameWord(words.second, pattern.second));
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

}  // namespace

StatementText::StatementText(std::string_view sql, const Dialect& dialect)
    : m_sql(sql), m_syntax(dialect.syntax) {
    SqlScanner scanner(sql, m_syntax);
    for (Token token = scanner.next(); token.kind != Kind::End; token = scanner.next()) {
        m_tokens.push_back(token);
    }
    while (!m_tokens.empty() && m_tokens.back().text == ";") m_tokens.pop_back();
}

/// A token and the one behind it.
WordPair StatementText::pairAt(size_t index) const noexcept {
    const auto text = [this](size_t i) {
        return i < m_tokens.size() ? m_tokens[i].text : std::string_view();
    };
    return {text(index), text(index + 1)};
}

// ---- markers

/// The text with what `spell` makes of their numbers in place of its markers.
template <class Spell>
MarkedSql StatementText::respelled(Spell&& spell) const {
    MarkedSql result;
    result.hasParts = hasParts();
    result.text.reserve(m_sql.size());
    size_t copied = 0;
    for (const Token& token : m_tokens) {
        if (token.text.front() == '$') refuseMarkers(token.text);
        if (token.kind != Kind::Marker) continue;
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
        const auto start = static_cast<size_t>(token.text.data() - m_sql.data());
        result.text += m_sql.substr(copied, start - copied);
        result.text += spell(number);
        copied = start + token.text.size();
        result.numbers.push_back(number);
        result.parameters = std::max(result.parameters, number);
    }
    result.text += m_sql.substr(copied);
    return result;
}

MarkedSql StatementText::marked() const {
    return respelled([](int) { return '?'; });
}

std::string StatementText::numbered() const {
    return respelled([](int number) { return "@" + std::to_string(number) + " "; }).text;
}

// ---- what it does

bool StatementText::has(const StatementPattern& pattern) const {
    constexpr size_t npos = std::string::npos;
    const auto isEnd = [](const Token& token) { return token.text == ";"; };
    for (size_t first = 0; first < m_tokens.size();) {
        const auto begin = m_tokens.begin() + static_cast<std::ptrdiff_t>(first);
        const auto end =
            static_cast<size_t>(std::find_if(begin, m_tokens.end(), isEnd) - m_tokens.begin());
        if (matches(pairAt(first), pattern.start)) {
            bool found = pattern.inside.first.empty();
            bool excused = false;
            for (size_t i = first + 1; i < end; ++i) {
                found = found || matches(pairAt(i), pattern.inside);
                excused = excused || (!pattern.unless.empty() &&
                                      lower(m_tokens[i].text).find(pattern.unless) != npos);
            }
            if (found && !excused) return true;
        }
        first = end + 1;
    }
    return false;
}

bool StatementText::hasParts() const noexcept {
    return std::any_of(m_tokens.begin(), m_tokens.end(),
                       [](const Token& token) { return token.text == ";"; });
}

bool StatementText::isBlock() const noexcept {
    return has({{"END", ""}}) || has({{"UNTIL", ""}});
}

bool StatementText::isAnonymousBlock() const noexcept {
    return matches(pairAt(0), {"BEGIN", "NOT"});
}

/// The kind of a COMMIT or ROLLBACK, which may go back to a savepoint or begin anew.
StatementKind StatementText::kindOfEnd(StatementKind kind) const noexcept {
    bool stays = false;
    for (const Token& token : m_tokens) {
        if (sameWord(token.text, "TO")) return StatementKind::Savepoint;
        if (sameWord(token.text, "CHAIN") && !stays) return StatementKind::Begin;
        stays = sameWord(token.text, "NO");
    }
    return kind;
}

StatementKind StatementText::kind() const noexcept {
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
        {{"BEGIN", "NOT"}, Other},
        {{"BEGIN", ""}, Begin},
        {{"COMMIT", ""}, Commit},
        {{"END", ""}, Commit},
        {{"ABORT", ""}, Rollback},
        {{"ROLLBACK", ""}, Rollback},
        {{"SAVEPOINT", ""}, Savepoint},
        {{"RELEASE", ""}, Savepoint},
    };
    const WordPair words = pairAt(0);
    for (const Entry& entry : kEntries) {
        if (!matches(words, entry.words)) continue;
        return entry.kind == Commit || entry.kind == Rollback ? kindOfEnd(entry.kind) : entry.kind;
    }
    return Other;
}

}  // namespace embedded
