#include "sqlite/sqltext.h"

#include <algorithm>
#include <charconv>

#include "core/error.h"
#include "sql/scanner.h"
#include "sqlite/schemaguard.h"
#include "values/text.h"

namespace embedded {
namespace {

using Kind = SqlScanner::Kind;
using Token = SqlScanner::Token;

bool isOneOf(std::string_view word, std::initializer_list<std::string_view> words) noexcept {
    return std::any_of(words.begin(), words.end(),
                       [word](std::string_view other) { return sameWord(word, other); });
}

bool mayHoldJoin(std::string_view sql) noexcept {
    for (size_t i = 0; i < sql.size(); ++i) {
        if ((sql[i] == 'J' || sql[i] == 'j') && sameWord(sql.substr(i, 4), "JOIN")) return true;
    }
    return false;
}

Token firstToken(SqlScanner& scanner) noexcept {
    Token token = scanner.next();
    while (token.text == ";") token = scanner.next();
    return token;
}

/// Numbers the markers of a text and spells them as SQLite does.
class MarkerSpeller {
  public:
    explicit MarkerSpeller(std::string& sql) noexcept : m_sql(sql) {}

    /// A variable takes a number, too, if it is a new one.
    void passVariable() noexcept { m_counted = false; }

    // A marker whose number is the next one anyway is written without it: SQLite looks for every
    // number that it reads among all it has seen, which takes a statement with thousands of them
    // long.
    void spell(std::string_view marker, size_t start) {
        const std::string_view digits = marker.substr(1);
        size_t number = m_largest + 1;
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (marker.front() == '@') {
            m_sql[start] = '?';
            if (m_counted && number == m_largest + 1) {
                std::fill_n(m_sql.begin() + static_cast<std::ptrdiff_t>(start) + 1, digits.size(),
                            ' ');
            }
        }
        m_largest = std::max(m_largest, number);
    }

  private:
    std::string& m_sql;
    size_t m_largest = 0;
    bool m_counted = true;
};

void refuseSystemName(const Token& token) {
    std::string_view name = token.text;
    const bool isQuoted = token.kind == Kind::QuotedName || token.kind == Kind::String;
    if (isQuoted && name.size() >= 2) name = name.substr(1, name.size() - 2);
    if (!isSystemName(name)) return;
    throw Error("42000", "The name " + std::string(name) + " is the runtime's own.", SQLITE_AUTH);
}

}  // namespace

SqliteText readSql(std::string_view sql) {
    SqliteText result;
    const bool isMarked = sql.find('@') != std::string_view::npos;
    if (!isMarked && !mayBeginWith("air", sql)) return result;
    SqlScanner scanner(sql);
    Token token = firstToken(scanner);
    result.inserts = isOneOf(token.text, {"INSERT", "REPLACE"});
    const bool alters = sameWord(token.text, "ALTER");
    // Most texts have nothing that the rest would be read for.
    if (!alters && !isMarked) return result;
    MarkerSpeller markers(result.respelled.emplace(sql));
    for (; token.kind != Kind::End; token = scanner.next()) {
        if (token.kind == Kind::Marker) {
            markers.spell(token.text, scanner.position() - token.text.size());
        } else if (token.kind == Kind::Variable) {
            markers.passVariable();
        }
        if (alters) refuseSystemName(token);
    }
    return result;
}

bool mayJoinOuter(std::string_view sql) noexcept {
    // No outer join goes without the word JOIN, and most texts do.
    if (!mayHoldJoin(sql)) return false;
    SqlScanner scanner(sql);
    for (Token token = scanner.next(); token.kind != Kind::End; token = scanner.next()) {
        if (token.kind == Kind::Word && isOneOf(token.text, {"LEFT", "RIGHT", "FULL"})) return true;
    }
    return false;
}

bool mayBeginWith(std::string_view letters, std::string_view sql) noexcept {
    if (sql.empty()) return false;
    const char lower = static_cast<char>(sql.front() | 0x20);
    return lower < 'a' || lower > 'z' || letters.find(lower) != std::string_view::npos;
}

bool isBlankSql(std::string_view sql) noexcept {
    SqlScanner scanner(sql);
    return firstToken(scanner).kind == Kind::End;
}

}  // namespace embedded
