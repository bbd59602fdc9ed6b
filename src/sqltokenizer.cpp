#include "include/sqltokenizer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstring>
#include <new>
#include <system_error>

#include "util/core.h"

const SQL_TOKEN NONE_TOKEN{TK_IDENTIFIER};
const SQL_TOKEN NULL_TOKEN{TK_NULL, "NULL"};
const SQL_TOKEN ANONPARAM_TOKEN{TK_PARAMETER, "?"};
const SQL_TOKEN ESCINITIATO_TOKEN{TK_ESCINITIATOR, "{"};
const SQL_TOKEN ESCTERMINATOR_TOKEN{TK_ESCTERMINATOR, "}"};
const SQL_TOKEN OPEN_TOKEN{TK_OPEN, "("};
const SQL_TOKEN CLOSE_TOKEN{TK_CLOSE, ")"};
const SQL_TOKEN DOT_TOKEN{TK_DOT, "."};

namespace {

struct Keyword {
    std::string_view word;
    TOKEN_KIND kind = TK_KEYWORD;
};
constexpr Keyword kKeywords[] = {
    {"CROSS"},  {"COLLATE"},        {"DISTINCT"},      {"DESC"},   {"EXCEPT"}, {"EXISTS"},
    {"FROM"},   {"FALSE", TK_BOOL}, {"GROUP"},         {"HAVING"}, {"INNER"},  {"INTERSECT"},
    {"IS"},     {"INTO"},           {"JOIN"},          {"LIMIT"},  {"LIKE"},   {"MINUS"},
    {"NOT"},    {"NATURAL"},        {"NULL", TK_NULL}, {"ON"},     {"OFFSET"}, {"ORDER"},
    {"SELECT"}, {"TRUE", TK_BOOL},  {"UNION"},         {"WHERE"},
};

// The keywords are in the order of their first letters: those with the n-th letter of the alphabet
// begin at [n] and end before [n + 1].
constexpr std::array<unsigned char, 27> kKeywordsFrom = [] {
    std::array<unsigned char, 27> from{};
    for (const Keyword& keyword : kKeywords) {
        for (std::size_t n = static_cast<std::size_t>(keyword.word[0] - 'A') + 1; n < 27; ++n)
            ++from[n];
    }
    return from;
}();

// What a byte may be, as bits: each byte of a statement is asked, some several times.
enum CharClass : unsigned char {
    kWhitespace = 1,
    kLetter = 2,
    kDigit = 4,
    kWord = 8,         // goes on in a plain word
    kHashRun = 16,     // goes on in a "#" run
    kIdentifier = 32,  // begins an identifier, quoted ones included
    kOperator = 64
};

constexpr std::array<unsigned char, 256> kCharClasses = [] {
    std::array<unsigned char, 256> classes{};
    const auto add = [&](std::string_view characters, int bits) {
        for (const char c : characters) {
            auto& known = classes[static_cast<unsigned char>(c)];
            known = static_cast<unsigned char>(known | bits);
        }
    };
    add("\t\n\v\f\r ", kWhitespace);
    add("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ",
        kLetter | kWord | kHashRun | kIdentifier);
    add("0123456789", kDigit | kWord | kHashRun);
    add("#$:@_", kWord);
    add("\"#'", kHashRun);
    add("\"$@_:*[`", kIdentifier);
    add("!<=>%*+,-/", kOperator);
    return classes;
}();

bool Is(unsigned char c, int classes) {
    return (kCharClasses[c] & classes) != 0;
}

bool IsOneOf(unsigned char c, std::string_view set) {
    return set.find(static_cast<char>(c)) != std::string_view::npos;
}

// One character of the text: the first of its UTF-16 units, and its length in bytes.
struct Character {
    unsigned short unit;
    int length;
};

// Reads the character at `p`, which lies before `end`. What has no UTF-16 form here is U+FFFD: as a
// whole when it is well-formed, else its first byte alone.
Character CharacterAt(const char* p, const char* end) {
    constexpr unsigned short kReplacement = 0xFFFD;
    if (static_cast<signed char>(*p) > 0) return {static_cast<unsigned char>(*p), 1};
    // The text may end within a sequence, and the decoder stops at a NUL only.
    char sequence[7] = {};
    std::copy_n(p, std::min<std::ptrdiff_t>(end - p, 6), sequence);
    unsigned int c = 0;
    const int length = utf8_to_usc4(sequence, c);
    char again[6];
    // Only a complete sequence in its shortest form encodes back to the same bytes.
    if (length == 0 || ucs4_to_utf8(c, again) != length ||
        std::memcmp(again, sequence, static_cast<std::size_t>(length)) != 0) {
        return {kReplacement, 1};
    }
    unsigned short units[2];
    const bool surrogate = c >= 0xD800 && c <= 0xDFFF;
    if (surrogate || ucs4_to_ucs2(c, units) == 0) return {kReplacement, length};
    return {units[0], length};
}

// Deliberately looks at the low byte only: other characters pass for operators by theirs.
bool IsOperatorChar(unsigned short unit) {
    return Is(static_cast<unsigned char>(unit & 0xFF), kOperator);
}

// Numbers that begin with the point are spelt out in plain decimals. from_chars, because strtod
// would look for the locale's decimal point.
int ReformatNumber(DynStr& text) {
    double value = 0.0;
    const auto result = std::from_chars(text.Deref(), text.Deref() + text.Length(), value);
    // from_chars gives no value for what is too large or too small.
    if (result.ec != std::errc{}) value = mystrtod(text.Deref(), nullptr);
    text.Reset();
    return text.AppendDouble(value);
}

int AppendBytes(DynStr& out, const char* begin, const char* end) {
    return out.Append(begin, end - begin);
}

}  // namespace

_sql_token::_sql_token(TOKEN_KIND kind, std::string_view text) : tkKind(kind) {
    if (Set(kind, text) != VORDA_OK) throw std::bad_alloc();
}

_sql_token::_sql_token(const _sql_token& other) : tkKind(other.tkKind) {
    if (Set(other) != VORDA_OK) throw std::bad_alloc();
}

int _sql_token::Set(const _sql_token& other) {
    return Set(other.tkKind, other.Text(), other.bWasQuoted);
}

int _sql_token::Set(TOKEN_KIND kind, std::string_view text, int wasQuoted) {
    tkKind = kind;
    bWasQuoted = wasQuoted;
    return sValue.Set(text.data(), static_cast<int>(text.size()));
}

bool _sql_token::Equals(const _sql_token& other) const {
    return Equals(other.tkKind, other.Text()) && bWasQuoted == other.bWasQuoted;
}

bool _sql_token::Equals(TOKEN_KIND kind, std::string_view text) const {
    return tkKind == kind && Text() == text;
}

int SQLTK_IsWhitespace(unsigned short c) {
    return c < kCharClasses.size() && Is(static_cast<unsigned char>(c), kWhitespace);
}
int SQLTK_IsLetter(unsigned short c) {
    return c < kCharClasses.size() && Is(static_cast<unsigned char>(c), kLetter);
}
int SQLTK_IsDigit(unsigned short c) {
    return c < kCharClasses.size() && Is(static_cast<unsigned char>(c), kDigit);
}
int SQLTK_IsLetterOrDigit(unsigned short c) {
    return c < kCharClasses.size() && Is(static_cast<unsigned char>(c), kLetter | kDigit);
}

int SqlTokenizer::InitWithUTF8(const char* sql) {
    return InitWithUTF8(sql, sql != nullptr ? std::strlen(sql) : 0);
}

int SqlTokenizer::InitWithUTF8(const char* sql, std::size_t length) {
    const std::size_t size = sql != nullptr ? strnlen(sql, length) : 0;
    const bool fits = size <= INT_MAX;
    m_lpszSQLSeek = size > 0 && fits ? sql : "";
    m_lpszSQLEnd = m_lpszSQLSeek + (fits ? size : 0);
    m_lpszAnchor = m_lpszSQLSeek;
    m_wLastErrorCode = fits ? VORDA_OK : VORDA_OUT_OF_MEMORY;
    return m_wLastErrorCode;
}

void SqlTokenizer::MarkStart() {
    SkipWhitespace();
    m_lpszAnchor = m_lpszSQLSeek;
}

std::string_view SqlTokenizer::MarkedText() const {
    return {m_lpszAnchor, static_cast<std::size_t>(m_lpszSQLSeek - m_lpszAnchor)};
}

// The byte at the position, or 0 at the end of the text, which contains no 0.
unsigned char SqlTokenizer::PeekChar() const {
    return IsEOF() ? '\0' : static_cast<unsigned char>(*m_lpszSQLSeek);
}

unsigned char SqlTokenizer::PeekNextChar() const {
    return m_lpszSQLEnd - m_lpszSQLSeek < 2 ? '\0' : static_cast<unsigned char>(m_lpszSQLSeek[1]);
}

void SqlTokenizer::SkipCharacter() {
    if (!IsEOF()) m_lpszSQLSeek += CharacterAt(m_lpszSQLSeek, m_lpszSQLEnd).length;
}

void SqlTokenizer::SkipWhile(int classes) {
    const char* p = m_lpszSQLSeek;
    while (p != m_lpszSQLEnd && Is(static_cast<unsigned char>(*p), classes)) ++p;
    m_lpszSQLSeek = p;
}

void SqlTokenizer::SkipWhitespace() {
    SkipWhile(kWhitespace);
}

// Skips one comment, if one starts here.
bool SqlTokenizer::SkipComment() {
    const unsigned char first = PeekChar();
    if (first != '-' && first != '/') return false;
    const unsigned char second = PeekNextChar();
    const bool line = second == first;
    if (!line && !(first == '/' && second == '*')) return false;
    m_lpszSQLSeek += 2;
    if (line) {
        ReadLineComment();
    } else {
        ReadMultiLineComment();
    }
    return true;
}

void SqlTokenizer::ReadLineComment() {
    while (!IsEOF() && !IsOneOf(PeekChar(), "\r\n")) ++m_lpszSQLSeek;
    if (PeekChar() == '\r') ++m_lpszSQLSeek;
    // The LF of a CR LF, or a line end of its own.
    if (PeekChar() == '\n') ++m_lpszSQLSeek;
}

// Comments do not nest, and one that is not closed runs to the end of the text.
void SqlTokenizer::ReadMultiLineComment() {
    const std::string_view rest(m_lpszSQLSeek,
                                static_cast<std::size_t>(m_lpszSQLEnd - m_lpszSQLSeek));
    const std::size_t close = rest.find("*/");
    m_lpszSQLSeek = close != std::string_view::npos ? m_lpszSQLSeek + close + 2 : m_lpszSQLEnd;
}

const SQL_TOKEN* SqlTokenizer::NextToken() {
    m_bLastTokenWasQuoted = 0;
    SkipWhitespace();
    bool afterComment = false;
    while (SkipComment()) {
        afterComment = true;
        SkipWhitespace();
    }
    if (IsEOF()) {
        m_stLastToken.Set(NONE_TOKEN);
        return afterComment ? &m_stLastToken : &NONE_TOKEN;
    }
    const int status = ReadToken(m_stLastToken);
    if (status == VORDA_OK) return &m_stLastToken;
    m_wLastErrorCode = status;
    m_stLastToken.Set(NONE_TOKEN);
    return afterComment ? &m_stLastToken : &NULL_TOKEN;
}

// The order of the tests matters: a minus sign or a point before a digit belongs to the number, and
// "*" is a name before it could be an operator.
int SqlTokenizer::ReadToken(SQL_TOKEN& token) {
    const unsigned char c = PeekChar();
    const unsigned char next = PeekNextChar();
    if (c == 'N' && next == '\'') {
        ++m_lpszSQLSeek;
        return ReadString(token);
    }
    if (Is(c, kIdentifier)) return ReadIdentifier(token);
    if (c == '#' || c == '\'') return ReadString(token);
    if (Is(c, kDigit) || ((c == '-' || c == '.') && Is(next, kDigit))) {
        return ReadNumberOrDate(token);
    }
    if (IsOperatorChar(CharacterAt(m_lpszSQLSeek, m_lpszSQLEnd).unit)) return ReadOperator(token);
    switch (c) {
        case '?':
            return TakeSingle(token, ANONPARAM_TOKEN);
        case '(':
            return TakeSingle(token, OPEN_TOKEN);
        case ')':
            return TakeSingle(token, CLOSE_TOKEN);
        case '.':
            return TakeSingle(token, DOT_TOKEN);
        case ';':
            return TakeSingle(token, NONE_TOKEN);
        case '{':
            return TakeSingle(token, ESCINITIATO_TOKEN);
        case '}':
            return TakeSingle(token, ESCTERMINATOR_TOKEN);
        default:
            return VORDA_SQL_UNKNOWN_CHARACTER;
    }
}

int SqlTokenizer::TakeSingle(SQL_TOKEN& token, const SQL_TOKEN& predefined) {
    ++m_lpszSQLSeek;
    return token.Set(predefined);
}

int SqlTokenizer::ReadIdentifier(SQL_TOKEN& token) {
    switch (PeekChar()) {
        case '[':
            return ReadQuoted(token, TK_IDENTIFIER, ']');
        case '"':
            return ReadQuoted(token, TK_IDENTIFIER, '"');
        case '`':
            return ReadQuoted(token, TK_IDENTIFIER, '`');
        case '*':
            ++m_lpszSQLSeek;
            // Flagged as quoted although it is not: it can be no name that needs looking up.
            return token.Set(TK_IDENTIFIER, "*", 1);
        default:
            break;
    }
    const char* const start = m_lpszSQLSeek;
    SkipWhile(kWord);
    const std::string_view word(start, static_cast<std::size_t>(m_lpszSQLSeek - start));
    return token.Set(GetTokenType(word), word);
}

TOKEN_KIND SqlTokenizer::GetTokenType(std::string_view word) {
    if (word.empty()) return TK_IDENTIFIER;
    if (word.front() == '@') return TK_PARAMETER;
    // The first letter must be upper-case while the others need not be.
    const auto letter = static_cast<unsigned char>(word.front() - 'A');
    if (letter >= kKeywordsFrom.size() - 1) return TK_IDENTIFIER;
    for (std::size_t i = kKeywordsFrom[letter]; i < kKeywordsFrom[letter + 1u]; ++i) {
        const Keyword& keyword = kKeywords[i];
        if (word.size() == keyword.word.size() &&
            mystrncmpi(word.data(), keyword.word.data(), word.size()) == 0) {
            return keyword.kind;
        }
    }
    return TK_IDENTIFIER;
}

int SqlTokenizer::ReadString(SQL_TOKEN& token) {
    if (PeekChar() == '\'') return ReadQuoted(token, TK_STR, '\'');
    const char* const start = m_lpszSQLSeek;
    SkipWhile(kHashRun);
    const std::string_view run(start, static_cast<std::size_t>(m_lpszSQLSeek - start));
    // The white space that ends a run goes with it.
    if (Is(PeekChar(), kWhitespace)) ++m_lpszSQLSeek;
    return token.Set(TK_STR, run);
}

// Reads a quoted string or identifier from its opening quote on.
int SqlTokenizer::ReadQuoted(SQL_TOKEN& token, TOKEN_KIND kind, char terminator) {
    ++m_lpszSQLSeek;
    m_bLastTokenWasQuoted = 1;
    if (const int status = ReadUntil(terminator, token.sValue); status != VORDA_OK) return status;
    token.tkKind = kind;
    token.bWasQuoted = kind == TK_IDENTIFIER;
    return VORDA_OK;
}

// Reads what follows an opening quote up to its terminator. A backslash keeps the next character
// whatever it is and is itself dropped; only "'" can be doubled to stand for itself.
int SqlTokenizer::ReadUntil(char terminator, DynStr& out) {
    out.Reset();
    // Bytes from here to the position are kept but not yet copied.
    const char* kept = m_lpszSQLSeek;
    while (!IsEOF()) {
        const char c = *m_lpszSQLSeek++;
        if (c != terminator && c != '\\') continue;
        const bool doubled = c == '\'' && PeekChar() == '\'';
        // The first quote of a doubled pair stays, a terminator and a backslash do not.
        const char* const keptEnd = doubled ? m_lpszSQLSeek : m_lpszSQLSeek - 1;
        if (const int status = AppendBytes(out, kept, keptEnd); status != VORDA_OK) return status;
        if (c == terminator && !doubled) return VORDA_OK;
        kept = doubled ? m_lpszSQLSeek + 1 : m_lpszSQLSeek;
        if (!IsEOF()) ++m_lpszSQLSeek;
        // At the very end any terminator closes the text, also the second of a pair.
        if (doubled && IsEOF()) return VORDA_OK;
    }
    return VORDA_SQL_UNCLOSED_QUOTE;
}

// There are no date literals in spite of the name: "2020-01-01" is three numbers.
int SqlTokenizer::ReadNumberOrDate(SQL_TOKEN& token) {
    const char* const start = m_lpszSQLSeek;
    bool digitsOnly = true;
    bool exponentSeen = false;
    for (; !IsEOF(); ++m_lpszSQLSeek) {
        const unsigned char c = PeekChar();
        if (Is(c, kDigit) || c == '.') continue;
        const bool first = m_lpszSQLSeek == start;
        if (!first && digitsOnly && (c == 'E' || c == 'e')) exponentSeen = true;
        digitsOnly = false;
        // Once there is an exponent, signs are taken anywhere: "1E5-3" is one token.
        const bool sign = c == '+' || c == '-';
        if (!first && !Is(c, kLetter) && !(sign && exponentSeen)) break;
    }
    const std::string_view text(start, static_cast<std::size_t>(m_lpszSQLSeek - start));
    if (const int status = token.Set(TK_NUMBER, text); status != VORDA_OK) return status;
    return text.front() == '.' ? ReformatNumber(token.sValue) : VORDA_OK;
}

int SqlTokenizer::ReadOperator(SQL_TOKEN& token) {
    constexpr std::string_view kPairs[] = {"!=", "<>", "<=", ">=", "=="};
    const char* const start = m_lpszSQLSeek;
    SkipCharacter();
    for (const std::string_view pair : kPairs) {
        if (*start != pair[0] || static_cast<char>(PeekChar()) != pair[1]) continue;
        ++m_lpszSQLSeek;
        if (pair != "<=") break;
        // It could still become "<=>", so it cannot be the end.
        if (IsEOF()) return VORDA_SQL_UNEXPECTED_END;
        if (PeekChar() == '>') ++m_lpszSQLSeek;
        break;
    }
    return token.Set(TK_OPERATOR, {start, static_cast<std::size_t>(m_lpszSQLSeek - start)});
}
