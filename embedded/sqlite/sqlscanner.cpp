#include "sqlite/sqlscanner.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "values/text.h"

namespace embedded {
namespace {

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

bool isWordByte(char c) noexcept {
    const auto byte = static_cast<unsigned char>(c);
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$' ||
           byte >= 0x80;
}

bool isBlank(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r';
}

bool isSpace(char c) noexcept {
    return isBlank(c) || c == '\v';
}

/// Whether a blank, a comment or a byte order mark can begin so.
bool mayBeBlank(char c) noexcept {
    return isBlank(c) || c == '-' || c == '/' || c == '\xEF';
}

constexpr std::string_view kVariableStarts = "@:$#";

// Between tokens SQLite reads a byte order mark as a blank.
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

}  // namespace

void SqlScanner::skipBlanks() noexcept {
    while (m_pos < m_sql.size() && mayBeBlank(m_sql[m_pos])) {
        const std::string_view rest = m_sql.substr(m_pos);
        if (isBlank(rest.front())) {
            // A vertical tab is one only behind another blank.
            while (m_pos < m_sql.size() && isSpace(m_sql[m_pos])) ++m_pos;
        } else if (rest.starts_with(kByteOrderMark)) {
            m_pos += kByteOrderMark.size();
        } else if (rest.starts_with("--")) {
            m_pos += std::min(rest.find('\n'), rest.size());
        } else if (rest.starts_with("/*") && rest.size() > 2) {
            const size_t close = rest.find("*/", 2);
            m_pos = close == std::string_view::npos ? m_sql.size() : m_pos + close + 2;
        } else {
            return;
        }
    }
}

size_t SqlScanner::wordEnd(size_t from) const noexcept {
    while (from < m_sql.size() && isWordByte(m_sql[from])) ++from;
    return from;
}

// SQLite takes "::" for a part of the name, and "(…)" without a blank inside for its end.
size_t SqlScanner::variableEnd(size_t from) const noexcept {
    size_t end = wordEnd(from);
    while (m_sql.substr(end).starts_with("::")) end = wordEnd(end + 2);
    if (end == m_sql.size() || m_sql[end] != '(' || end == from) return end;
    while (++end < m_sql.size() && !isSpace(m_sql[end])) {
        if (m_sql[end] == ')') return end + 1;
    }
    return end;
}

// The end of x'…' here, or 0. A quote right behind it starts a string and doubles nothing.
size_t SqlScanner::blobEnd() const noexcept {
    const std::string_view rest = m_sql.substr(m_pos);
    if (!rest.starts_with("x'") && !rest.starts_with("X'")) return 0;
    const size_t close = rest.find_first_not_of("0123456789abcdefABCDEF", 2);
    const bool whole = close != std::string_view::npos && close % 2 == 0 && rest[close] == '\'';
    return whole ? m_pos + close + 1 : 0;
}

// A doubled closing quote stands for itself, except in […].
size_t SqlScanner::quotedEnd(char close) const noexcept {
    size_t at = m_sql.find(close, m_pos + 1);
    while (at != std::string_view::npos) {
        const bool doubled = close != ']' && at + 1 < m_sql.size() && m_sql[at + 1] == close;
        if (!doubled) return at + 1;
        at = m_sql.find(close, at + 2);
    }
    return m_sql.size();
}

SqlScanner::Token SqlScanner::next() noexcept {
    skipBlanks();
    if (m_pos >= m_sql.size()) return {};
    const char first = m_sql[m_pos];
    size_t end = m_pos + 1;
    Kind kind = Kind::Punctuation;
    if (first == '\'') {
        kind = Kind::String;
        end = quotedEnd('\'');
    } else if (first == '"' || first == '`' || first == '[') {
        kind = Kind::QuotedName;
        end = quotedEnd(first == '[' ? ']' : first);
    } else if (const size_t blob = blobEnd(); blob != 0) {
        kind = Kind::String;
        end = blob;
    } else if (isWordByte(first) && first != '$') {
        kind = Kind::Word;
        end = wordEnd(end);
    } else if (first == '?') {
        kind = Kind::Marker;
        while (end < m_sql.size() && isDigit(m_sql[end])) ++end;
    } else if (kVariableStarts.find(first) != std::string_view::npos) {
        end = variableEnd(end);
        const std::string_view name = m_sql.substr(m_pos + 1, end - m_pos - 1);
        const bool number = std::all_of(name.begin(), name.end(), isDigit);
        if (!name.empty()) kind = first == '@' && number ? Kind::Marker : Kind::Variable;
    }
    const Token token{kind, m_sql.substr(m_pos, end - m_pos)};
    m_pos = end;
    return token;
}

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
