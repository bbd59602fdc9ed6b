#include "odbc/sqltext.h"

#include <sql.h>
#include <algorithm>
#include <charconv>

#include <limits>

#include "core/error.h"
#include "values/text.h"

namespace embedded {
namespace {

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

/// A token and the one behind it.
WordPair nextPair(SqlScanner& scanner, std::string_view first) noexcept {
    return {first, scanner.next().text};
}

bool matches(const WordPair& words, const WordPair& pattern) noexcept {
    return sameWord(words.first, pattern.first) &&
           (pattern.second.empty() || sameWord(words.second, pattern.second));
}

}  // namespace

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
    SqlScanner scanner(sql, dialect.syntax);
    size_t copied = 0;
    for (auto token = scanner.next(); token.kind != SqlScanner::Kind::End; token = scanner.next()) {
        if (token.text.front() == '$') refuseMarkers(token.text);
        if (token.kind != SqlScanner::Kind::Marker) continue;
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
    SqlScanner scanner(sql, dialect.syntax);
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
    SqlScanner scanner(sql, dialect.syntax);
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
    SqlScanner scanner(sql, dialect.syntax);
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
