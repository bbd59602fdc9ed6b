// Tokenizer, normaliser and marker walk against a second reading of the language, which goes unit
// by unit over a UTF-16 copy where the code goes over the bytes in place.
#include "dbutil.h"

#include <cctype>
#include <utility>

#include "fuzz.h"

namespace {

bool oneOf(char16_t c, std::string_view set) {
    return c < 0x80 && set.find(static_cast<char>(c)) != std::string_view::npos;
}
bool isWhite(char16_t c) {
    return oneOf(c, "\t\n\v\f\r ");
}
bool isDigit(char16_t c) {
    return oneOf(c, "0123456789");
}
bool isLetter(char16_t c) {
    return c < 0x80 && std::isalpha(c) != 0;
}
struct Lexeme {
    TOKEN_KIND kind = TK_IDENTIFIER;
    std::string text;
    bool quoted = false;
    bool failed = false;
    bool reformatted = false;  // the text is a number spelt anew
    std::size_t end = 0;       // in bytes
};

class Reader {
  public:
    explicit Reader(std::string_view bytes) : m_bytes(bytes) {
        for (std::size_t i = 0; i < bytes.size();) {
            char32_t c = 0;
            std::size_t length = fuzz::strictCharacter(bytes.substr(i), c);
            if (length == 0 || c >= 0xF0000) c = 0xFFFD;
            // Of a pair only the first unit is looked at.
            m_units += static_cast<char16_t>(c < 0x10000 ? c : 0xD7C0 + (c >> 10));
            m_offsets.push_back(i);
            i += std::max<std::size_t>(length, 1);
        }
        m_offsets.push_back(bytes.size());
    }

    bool atEnd() const { return m_at == m_units.size(); }
    std::size_t position() const { return m_offsets[m_at]; }
    void skipWhite() {
        while (isWhite(unit())) ++m_at;
    }

    /// The next lexeme behind white space and comments, an empty name at the end of the text.
    Lexeme next() {
        for (;;) {
            skipWhite();
            const bool twice = unit() == unit(1);
            if (twice && (unit() == '-' || unit() == '/')) {
                skipLine();
            } else if (unit() == '/' && unit(1) == '*') {
                skipBlock();
            } else {
                break;
            }
        }
        Lexeme lexeme;
        if (!atEnd()) read(lexeme);
        lexeme.end = position();
        return lexeme;
    }

  private:
    char16_t unit(std::size_t ahead = 0) const {
        return m_at + ahead < m_units.size() ? m_units[m_at + ahead] : u'\0';
    }
    std::string_view bytesOf(std::size_t from, std::size_t to) const {
        return m_bytes.substr(m_offsets[from], m_offsets[to] - m_offsets[from]);
    }
    void skipLine() {
        while (!atEnd() && unit() != '\n' && unit() != '\r') ++m_at;
        if (unit() == '\r' && unit(1) == '\n') ++m_at;
        if (!atEnd()) ++m_at;
    }
    void skipBlock() {
        m_at += 2;
        while (!atEnd() && !(unit() == '*' && unit(1) == '/')) ++m_at;
        m_at = std::min(m_at + 2, m_units.size());
    }

    template <class Accept>
    std::string_view run(Accept accept) {
        const std::size_t from = m_at;
        while (!atEnd() && accept(unit())) ++m_at;
        return bytesOf(from, m_at);
    }

    void readQuoted(Lexeme& lexeme, TOKEN_KIND kind, char16_t terminator) {
        lexeme.kind = kind;
        lexeme.quoted = kind == TK_IDENTIFIER;
        bool escaped = false;
        bool secondOfPair = false;
        for (++m_at; !atEnd();) {
            const std::size_t here = m_at;
            const char16_t c = m_units[m_at++];
            if (!escaped && c == terminator) {
                if (terminator != '\'' || atEnd()) return;
                const bool again = unit() == '\'';
                if (!again && !secondOfPair) return;
                if (!secondOfPair) lexeme.text += '\'';
                secondOfPair = !secondOfPair;
            } else if (!escaped && c == '\\') {
                escaped = true;
            } else {
                lexeme.text += bytesOf(here, m_at);
                escaped = false;
            }
        }
        lexeme.failed = true;
    }

    void readNumber(Lexeme& lexeme) {
        lexeme.kind = TK_NUMBER;
        bool plain = true;
        bool exponent = false;
        for (const std::size_t from = m_at; !atEnd(); ++m_at) {
            const char16_t c = unit();
            const bool first = m_at == from;
            if (!first && plain && (c == 'e' || c == 'E')) exponent = true;
            if (!isDigit(c) && c != '.') plain = false;
            const bool sign = (c == '+' || c == '-') && (first || exponent);
            if (!sign && !isDigit(c) && !isLetter(c) && c != '.') break;
            lexeme.text += static_cast<char>(c);
        }
        lexeme.reformatted = lexeme.text.front() == '.';
        // Spelling such a number anew fails where it does not fit 64 bits.
        lexeme.failed = lexeme.reformatted && std::strtod(lexeme.text.c_str(), nullptr) > 0x1p63;
    }

    void readOperator(Lexeme& lexeme) {
        lexeme.kind = TK_OPERATOR;
        const std::size_t from = m_at++;
        const std::string two{static_cast<char>(m_units[from] < 0x80 ? m_units[from] : 0),
                              static_cast<char>(unit() < 0x80 ? unit() : 0)};
        if (two == "!=" || two == "<>" || two == ">=" || two == "==") ++m_at;
        if (two == "<=") {
            ++m_at;
            lexeme.failed = atEnd();
            if (unit() == '>') ++m_at;
        }
        lexeme.text = bytesOf(from, m_at);
    }

    void readWord(Lexeme& lexeme) {
        constexpr std::string_view kKeywords =
            " cross collate distinct desc except exists from group having inner intersect is into "
            "join limit like minus not natural on offset order select union where ";
        lexeme.text =
            run([](char16_t c) { return isLetter(c) || isDigit(c) || oneOf(c, "#$:@_"); });
        const char first = lexeme.text.front();
        const std::string word = fuzz::lower(lexeme.text);
        if (first == '@') lexeme.kind = TK_PARAMETER;
        if (first < 'A' || first > 'Z') return;
        if (kKeywords.find(" " + word + " ") != std::string_view::npos) lexeme.kind = TK_KEYWORD;
        if (word == "true" || word == "false") lexeme.kind = TK_BOOL;
        if (word == "null") lexeme.kind = TK_NULL;
    }

    void read(Lexeme& lexeme) {
        struct Single {
            char16_t c;
            TOKEN_KIND kind;
        };
        constexpr Single kSingles[] = {
            {'?', TK_PARAMETER},    {'(', TK_OPEN},          {')', TK_CLOSE},     {'.', TK_DOT},
            {'{', TK_ESCINITIATOR}, {'}', TK_ESCTERMINATOR}, {';', TK_IDENTIFIER}};
        const char16_t c = unit();
        if (c == 'N' && unit(1) == '\'') ++m_at;
        if (unit() == '\'') return readQuoted(lexeme, TK_STR, '\'');
        if (c == '"' || c == '`') return readQuoted(lexeme, TK_IDENTIFIER, c);
        if (c == '[') return readQuoted(lexeme, TK_IDENTIFIER, ']');
        if (c == '*') {
            lexeme.text = "*";
            lexeme.quoted = true;
            ++m_at;
            return;
        }
        if (isLetter(c) || oneOf(c, "$@_:")) return readWord(lexeme);
        if (c == '#') {
            lexeme.kind = TK_STR;
            lexeme.text =
                run([](char16_t u) { return isLetter(u) || isDigit(u) || oneOf(u, "\"#'"); });
            if (isWhite(unit())) ++m_at;
            return;
        }
        if (isDigit(c) || ((c == '-' || c == '.') && isDigit(unit(1)))) return readNumber(lexeme);
        // The low byte alone decides, for characters beyond ASCII too.
        if (oneOf(c & 0xFF, "!<=>%*+,-/")) return readOperator(lexeme);
        for (const Single& single : kSingles) {
            if (single.c != c) continue;
            lexeme.kind = single.kind;
            if (c != ';') lexeme.text = static_cast<char>(c);
            ++m_at;
            return;
        }
        lexeme.failed = true;
        ++m_at;
    }

    std::string_view m_bytes;
    std::u16string m_units;
    std::vector<std::size_t> m_offsets;
    std::size_t m_at = 0;
};

struct Expected {
    std::vector<Lexeme> lexemes;
    int type = 0;
    std::string text;
    std::vector<std::string> markers;
};

Expected expect(std::string_view sql) {
    constexpr std::string_view kVerbs[] = {"",       "select",  "update", "insert",
                                           "delete", "execute", "exec"};
    Expected result;
    Reader reader(sql);
    reader.skipWhite();
    std::size_t copied = reader.position();
    bool afterEquals = false;
    bool first = true;
    while (!reader.atEnd()) {
        const Lexeme lexeme = reader.next();
        result.lexemes.push_back(lexeme);
        const bool name = lexeme.kind == TK_IDENTIFIER || lexeme.kind == TK_KEYWORD;
        if (std::exchange(first, false)) {
            for (int i = 1; i < 7 && name && !lexeme.quoted; ++i) {
                if (fuzz::lower(lexeme.text) == kVerbs[i]) result.type = i;
            }
            continue;
        }
        const bool marker =
            !lexeme.failed && (lexeme.kind == TK_PARAMETER ||
                               (lexeme.kind == TK_IDENTIFIER && !lexeme.text.empty() &&
                                (lexeme.text.front() == ':' || lexeme.text.front() == '@')));
        if (marker && result.type >= 5 && !afterEquals) continue;
        afterEquals = !lexeme.failed && lexeme.kind == TK_OPERATOR && lexeme.text == "=";
        if (!marker) continue;
        result.markers.push_back(lexeme.text);
        const std::size_t length = lexeme.end - copied;
        result.text += sql.substr(copied, length - std::min(length, lexeme.text.size()));
        result.text += "@" + std::to_string(result.markers.size()) + " ";
        reader.skipWhite();
        copied = reader.position();
    }
    result.text += sql.substr(copied);
    return result;
}

void checkTokens(std::string_view sql, const std::vector<Lexeme>& lexemes) {
    // No terminator: the length alone must hold the tokenizer back.
    const std::vector<char> exact(sql.begin(), sql.end());
    SqlTokenizer tokenizer;
    tokenizer.InitWithUTF8(exact.data(), exact.size());
    auto expected = lexemes.begin();
    const auto skipFailures = [&] {
        while (expected != lexemes.end() &&
               (expected->failed ||
                (expected->text.empty() && expected->kind == TK_IDENTIFIER && !expected->quoted))) {
            ++expected;
        }
    };
    while (!tokenizer.IsEOF()) {
        const char* const before = tokenizer.Position();
        const SQL_TOKEN* const token = tokenizer.NextToken();
        if (tokenizer.Position() == before) tokenizer.SkipCharacter();
        // A failure behind a comment looks like the empty token; both sides skip both.
        if (token == &NULL_TOKEN || token->Equals(NONE_TOKEN)) continue;
        skipFailures();
        fuzz::require(expected != lexemes.end(), "there is no such token");
        fuzz::require(token->tkKind == expected->kind, "the kind of the token");
        fuzz::require((token->bWasQuoted != 0) == expected->quoted, "whether it was quoted");
        if (!expected->reformatted) fuzz::requireSame(token->Text(), expected->text, "its text");
        const auto end = static_cast<std::size_t>(tokenizer.Position() - exact.data());
        fuzz::require(end == expected->end, "where the token ends");
        ++expected;
    }
    skipFailures();
    fuzz::require(expected == lexemes.end(), "no token is left out");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view sql = fuzz::Input(data, size).rest();
    sql = sql.substr(0, sql.find('\0'));
    const Expected expected = expect(sql);
    checkTokens(sql, expected.lexemes);

    const std::vector<char> text = fuzz::terminated(sql);
    DynStr normalized;
    normalized.Set("before ");
    int type = -1;
    int count = -1;
    NormalizeSQL(text.data(), normalized, &type, &count);
    fuzz::requireSame({normalized.Deref(), static_cast<std::size_t>(normalized.Length())},
                      "before " + expected.text, "the normalised text");
    fuzz::require(type == expected.type, "the kind of statement");
    fuzz::require(count == static_cast<int>(expected.markers.size()), "the number of markers");

    MarkerWalk walk(text.data());
    for (const std::string& marker : expected.markers) {
        const SQL_TOKEN* const found = walk.NextMarker();
        fuzz::require(found != nullptr, "the walk ends too early");
        fuzz::requireSame(found->Text(), marker, "the marker's text");
    }
    fuzz::require(walk.NextMarker() == nullptr, "the walk ends too late");

    constexpr const char* kVerbs[] = {nullptr, "SELECT", "UPDATE", "INSERT", "DELETE"};
    DynStr unchanged;
    unchanged.Set("before");
    const char* verb = "";
    const bool simple = expected.type >= 1 && expected.type <= 4;
    fuzz::require(NormalizeSQL(text.data(), unchanged, &verb) == (simple ? 0 : -1),
                  "the light form");
    fuzz::requireSame(unchanged.Deref(), simple ? sql : "before", "the light form's text");
    fuzz::requireSame(verb != nullptr ? verb : "", simple ? kVerbs[expected.type] : "", "its verb");
    return 0;
}
