#include "sqlite/sqltext.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "sql/scanner.h"
#include "values/text.h"

namespace embedded {

// A marker whose number is the next one anyway is written without it: SQLite looks for every number
// that it reads among all it has seen, which takes a statement with thousands of them long.
std::string numberedMarkers(std::string_view sql) {
    std::string result(sql);
    if (sql.find('@') == std::string_view::npos) return result;
    SqlScanner scanner(sql);
    size_t largest = 0;
    bool counted = true;  // a variable takes a number, too, if it is a new one
    for (auto token = scanner.next(); token.kind != SqlScanner::Kind::End; token = scanner.next()) {
        if (token.kind == SqlScanner::Kind::Variable) counted = false;
        if (token.kind != SqlScanner::Kind::Marker) continue;
        const std::string_view digits = token.text.substr(1);
        const auto start = static_cast<size_t>(token.text.data() - sql.data());
        size_t number = largest + 1;
        std::from_chars(digits.data(), digits.data() + digits.size(), number);
        if (token.text.front() == '@') {
            const bool next = counted && number == largest + 1;
            result[start] = '?';
            if (next) result.replace(start + 1, digits.size(), digits.size(), ' ');
        }
        largest = std::max(largest, number);
    }
    return result;
}

bool isBlankSql(std::string_view sql) noexcept {
    SqlScanner scanner(sql);
    auto token = scanner.next();
    while (token.text == ";") token = scanner.next();
    return token.kind == SqlScanner::Kind::End;
}

bool mayJoinOuter(std::string_view sql) noexcept {
    constexpr std::array<std::string_view, 3> kWords{"LEFT", "RIGHT", "FULL"};
    SqlScanner scanner(sql);
    for (auto token = scanner.next(); token.kind != SqlScanner::Kind::End; token = scanner.next()) {
        if (token.kind == SqlScanner::Kind::Word &&
            std::any_of(kWords.begin(), kWords.end(),
                        [&](std::string_view word) { return sameWord(word, token.text); })) {
            return true;
        }
    }
    return false;
}

bool isInsert(std::string_view sql) noexcept {
    SqlScanner scanner(sql);
    auto token = scanner.next();
    while (token.text == ";") token = scanner.next();
    return sameWord(token.text, "INSERT") || sameWord(token.text, "REPLACE");
}

Verb verbOf(std::string_view sql) noexcept {
    struct Entry {
        std::string_view word;
        Verb verb;
    };
    static constexpr Entry kVerbs[] = {
        {"SELECT", Verb::Query},
        {"VALUES", Verb::Query},
        {"WITH", Verb::With},
        {"INSERT", Verb::Change},
        {"REPLACE", Verb::Change},
        {"UPDATE", Verb::Change},
        {"DELETE", Verb::Change},
        {"BEGIN", Verb::Transaction},
        {"COMMIT", Verb::Transaction},
        {"END", Verb::Transaction},
        {"SAVEPOINT", Verb::Transaction},
        {"RELEASE", Verb::Transaction},
        {"ROLLBACK", Verb::Rollback},
        {"PRAGMA", Verb::Pragma},
        {"EXPLAIN", Verb::Service},
        {"ATTACH", Verb::Service},
        {"DETACH", Verb::Service},
        {"VACUUM", Verb::Service},
    };
    SqlScanner scanner(sql);
    auto token = scanner.next();
    while (token.text == ";") token = scanner.next();
    for (const Entry& entry : kVerbs) {
        if (sameWord(entry.word, token.text)) return entry.verb;
    }
    return Verb::Other;
}

}  // namespace embedded
