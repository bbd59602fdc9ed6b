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
    kOperator = 64,
    kCommentStart = 128
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
    add("-/", kCommentStart);
    return classes;
}();

bool Is(unsigned char c, int classes) {
    return (kCharClasses[c] & classes) != 0;
}

// Characters that are a token whatever follows them; TK_COMMENT stands for all others.
constexpr std::array<TOKEN_KIND, 256> kSingles = [] {
    std::array<TOKEN_KIND, 256> kinds{};
    kinds.fill(TK_COMMENT);
    kinds['?'] = TK_PARAMETER;
    kinds['('] = TK_OPEN;
    kinds[')'] = TK_CLOSE;
    kinds['{'] = TK_ESCINITIATOR;
    kinds['}'] = TK_ESCTERMINATOR;
    for (const char c : {',', '%', '+'}) kinds[static_cast<unsigned char>(c)] = TK_OPERATOR;
    return kinds;
}();

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

// The text of a quoted token: a backslash keeps what follows it and is itself dropped; of a doubled
// "'" the first one stays.
int Unescape(std::string_view source, char quote, DynStr& out) {
    out.Reset();
    while (!source.empty()) {
        const std::size_t end =
            std::min(source.find_first_of(quote == '\'' ? "\\'" : "\\"), source.size());
        const bool doubled = end < source.size() && source[end] == quote;
        const std::size_t kept = doubled ? end + 1 : end;
        if (const int status = out.Append(source.data(), static_cast<long long>(kept));
            status != VORDA_OK) {
            return status;
        }
        source.remove_prefix(std::min(end + 1, source.size()));
        if (source.empty()) break;
        // The second quote goes, the character behind a backslash stays.
        if (doubled) {
            source.remove_prefix(1);
        } else {
            if (const int status = out.Append(source.data(), 1); status != VORDA_OK) return status;
            source.remove_prefix(1);
        }
    }
    return VORDA_OK;
}

}  // namespace

_sql_token::_sql_token(TOKEN_KIND kind, std::string_view text) noexcept : tkKind(kind) {
    Set(kind, text);
}

std::unique_ptr<_sql_token> _sql_token::Clone() const noexcept {
    std::unique_ptr<_sql_token> copy(new (std::nothrow) _sql_token(tkKind));
    if (copy && copy->Set(*this) != VORDA_OK) copy.reset();
    return copy;
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
    m_lpszSQLSeek = size > 0 ? sql : "";
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

// Skips one comment, if one starts here, where there is a character that can start one.
bool SqlTokenizer::SkipComment() {
    const unsigned char first = PeekChar();
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
    SqlLexeme lexeme;
    int status = NextLexeme(lexeme);
    if (status == VORDA_OK && !lexeme.isEnd) {
        status = TakeToken(lexeme);
        if (status == VORDA_OK) return &m_stLastToken;
        m_wLastErrorCode = status;
    }
    m_stLastToken.Set(NONE_TOKEN);
    if (lexeme.afterComment) return &m_stLastToken;
    return status == VORDA_OK ? &NONE_TOKEN : &NULL_TOKEN;
}

int SqlTokenizer::NextLexeme(SqlLexeme& lexeme) {
    lexeme = {};
    m_bLastTokenWasQuoted = 0;
    SkipWhitespace();
    while (Is(PeekChar(), kCommentStart) && SkipComment()) {
        lexeme.afterComment = true;
        SkipWhitespace();
    }
    lexeme.isEnd = IsEOF();
    const int status = lexeme.isEnd ? int{VORDA_OK} : ReadLexeme(lexeme);
    if (status != VORDA_OK) m_wLastErrorCode = status;
    return status;
}

int SqlTokenizer::TakeToken(const SqlLexeme& lexeme) {
    SQL_TOKEN& token = m_stLastToken;
    if (lexeme.quote != 0) {
        token.tkKind = lexeme.kind;
        token.bWasQuoted = lexeme.wasQuoted;
        return Unescape(lexeme.source, lexeme.quote, token.sValue);
    }
    const TOKEN_KIND kind = lexeme.isWord ? GetTokenType(lexeme.source) : lexeme.kind;
    const int status = token.Set(kind, lexeme.source, lexeme.wasQuoted);
    const bool point = kind == TK_NUMBER && lexeme.source.front() == '.';
    return status == VORDA_OK && point ? ReformatNumber(token.sValue) : status;
}

// The order of the tests matters: a minus sign or a point before a digit belongs to the number, and
// "*" is a name before it could be an operator.
int SqlTokenizer::ReadLexeme(SqlLexeme& lexeme) {
    const unsigned char c = PeekChar();
    if (const TOKEN_KIND single = kSingles[c]; single != TK_COMMENT) {
        return TakeSingle(lexeme, single);
    }
    const unsigned char next = PeekNextChar();
    if (c == 'N' && next == '\'') {
        ++m_lpszSQLSeek;
        return ReadString(lexeme);
    }
    if (Is(c, kIdentifier)) return ReadIdentifier(lexeme);
    if (c == '#' || c == '\'') return ReadString(lexeme);
    if (Is(c, kDigit) || ((c == '-' || c == '.') && Is(next, kDigit))) {
        return ReadNumberOrDate(lexeme);
    }
    if (IsOperatorChar(CharacterAt(m_lpszSQLSeek, m_lpszSQLEnd).unit)) return ReadOperator(lexeme);
    if (c == '.') return TakeSingle(lexeme, TK_DOT);
    if (c != ';') return VORDA_SQL_UNKNOWN_CHARACTER;
    ++m_lpszSQLSeek;  // a separator has no text
    return VORDA_OK;
}

int SqlTokenizer::TakeSingle(SqlLexeme& lexeme, TOKEN_KIND kind) {
    lexeme.kind = kind;
    lexeme.source = {m_lpszSQLSeek++, 1};
    return VORDA_OK;
}

int SqlTokenizer::ReadIdentifier(SqlLexeme& lexeme) {
    switch (PeekChar()) {
        case '[':
            return ReadQuoted(lexeme, TK_IDENTIFIER, ']');
        case '"':
            return ReadQuoted(lexeme, TK_IDENTIFIER, '"');
        case '`':
            return ReadQuoted(lexeme, TK_IDENTIFIER, '`');
        case '*':
            // Flagged as quoted although it is not: it can be no name that needs looking up.
            lexeme.wasQuoted = 1;
            return TakeSingle(lexeme, TK_IDENTIFIER);
        default:
            break;
    }
    const char* const start = m_lpszSQLSeek;
    SkipWhile(kWord);
    lexeme.source = {start, static_cast<std::size_t>(m_lpszSQLSeek - start)};
    lexeme.kind = *start == '@' ? TK_PARAMETER : TK_IDENTIFIER;
    lexeme.isWord = true;
    return VORDA_OK;
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

int SqlTokenizer::ReadString(SqlLexeme& lexeme) {
    if (PeekChar() == '\'') return ReadQuoted(lexeme, TK_STR, '\'');
    const char* const start = m_lpszSQLSeek;
    SkipWhile(kHashRun);
    lexeme.kind = TK_STR;
    lexeme.source = {start, static_cast<std::size_t>(m_lpszSQLSeek - start)};
    // The white space that ends a run goes with it.
    if (Is(PeekChar(), kWhitespace)) ++m_lpszSQLSeek;
    return VORDA_OK;
}

// Reads a quoted string or identifier from its opening quote on.
int SqlTokenizer::ReadQuoted(SqlLexeme& lexeme, TOKEN_KIND kind, char terminator) {
    ++m_lpszSQLSeek;
    m_bLastTokenWasQuoted = 1;
    lexeme.kind = kind;
    lexeme.wasQuoted = kind == TK_IDENTIFIER;
    return ReadUntil(terminator, lexeme);
}

// Reads what follows an opening quote up to its terminator. A backslash takes the next character
// with it whatever it is; only "'" can be doubled to stand for itself.
int SqlTokenizer::ReadUntil(char terminator, SqlLexeme& lexeme) {
    const char* const start = m_lpszSQLSeek;
    const char* const end = m_lpszSQLEnd;
    const char* p = start;
    const auto find = [&p](char c, const char* limit) {
        return static_cast<const char*>(std::memchr(p, c, static_cast<std::size_t>(limit - p)));
    };
    // Most texts have no backslash, and end at the first terminator.
    const char* const quote = find(terminator, end);
    if (quote != nullptr && find('\\', quote) == nullptr) p = quote;
    while (true) {
        while (p != end && *p != terminator && *p != '\\') ++p;
        if (p == end) break;
        const bool escape = *p == '\\';
        if (!escape && (terminator != '\'' || p + 1 == end || p[1] != terminator)) break;
        lexeme.quote = terminator;
        if (++p == end) break;
        // The second quote of a pair closes the text at the very end.
        if (!escape && p + 1 == end) break;
        ++p;
    }
    lexeme.source = {start, static_cast<std::size_t>(p - start)};
    m_lpszSQLSeek = p == end ? end : p + 1;
    return p == end ? VORDA_SQL_UNCLOSED_QUOTE : VORDA_OK;
}

// There are no date literals in spite of the name: "2020-01-01" is three numbers.
int SqlTokenizer::ReadNumberOrDate(SqlLexeme& lexeme) {
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
    lexeme.kind = TK_NUMBER;
    lexeme.source = {start, static_cast<std::size_t>(m_lpszSQLSeek - start)};
    return VORDA_OK;
}

int SqlTokenizer::ReadOperator(SqlLexeme& lexeme) {
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
    lexeme.kind = TK_OPERATOR;
    lexeme.source = {start, static_cast<std::size_t>(m_lpszSQLSeek - start)};
    return VORDA_OK;
}
