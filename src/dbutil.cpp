#include "dbutil.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "util/core.h"

namespace {

struct Verb {
    const char* word;
    int sqlType;
};
constexpr Verb kVerbs[] = {
    {"SELECT", SQLTYPE_SELECT}, {"INSERT", SQLTYPE_INSERT},   {"UPDATE", SQLTYPE_UPDATE},
    {"DELETE", SQLTYPE_DELETE}, {"EXECUTE", SQLTYPE_EXECUTE}, {"EXEC", SQLTYPE_EXEC},
};

// Only a plain word is a verb, not a string or a quoted name that reads like one.
int Classify(const SQL_TOKEN& first) {
    if ((first.tkKind != TK_IDENTIFIER && first.tkKind != TK_KEYWORD) || first.bWasQuoted) {
        return SQLTYPE_OTHER;
    }
    const auto* const verb = std::find_if(std::begin(kVerbs), std::end(kVerbs), [&](const Verb& v) {
        return mystrcmpi(first.sValue.Deref(), v.word) == 0;
    });
    return verb != std::end(kVerbs) ? verb->sqlType : SQLTYPE_OTHER;
}

// The kind and the first byte decide, so a quoted name that begins with ":" or "@" is a marker too.
bool IsMarker(const SQL_TOKEN& token) {
    const char first = *token.sValue.Deref();
    return token.IsParameter() || (token.tkKind == TK_IDENTIFIER && (first == ':' || first == '@'));
}

// In front of its text a quoted name may have an escape character.
bool MayBeMarker(const SqlLexeme& lexeme) {
    if (lexeme.kind != TK_IDENTIFIER) return lexeme.kind == TK_PARAMETER;
    const char first = lexeme.source.empty() ? '\0' : lexeme.source.front();
    return first == ':' || first == '@' || first == '\\';
}

void Check(int status) {
    if (status != VORDA_OK) throw std::bad_alloc();
}

// Appends the statement with its markers numbered; returns their number.
int AppendNumbered(MarkerWalk& walk, DynStr& normalizedSql) {
    const auto append = [&](std::string_view text) {
        Check(normalizedSql.Append(text.data(), static_cast<long long>(text.size())));
    };
    int paramIndex = 0;
    while (const SQL_TOKEN* marker = walk.NextMarker()) {
        std::string_view text = walk.TakeText();
        // What is cut is the marker's text without quotes: of "[:x]" the bracket "[" stays behind,
        // and an "@1 " follows it. Never more than there is.
        text.remove_suffix(std::min(marker->Text().size(), text.size()));
        append(text);
        append("@");
        Check(normalizedSql.AppendInt(++paramIndex));
        append(" ");
    }
    append(walk.TakeText());
    return paramIndex;
}

}  // namespace

bool IsStoredProcedure(int sqlType) {
    return sqlType == SQLTYPE_EXECUTE || sqlType == SQLTYPE_EXEC;
}

bool IsStoredProceduresqlType(int sqlType) {
    return IsStoredProcedure(sqlType);
}

bool SQLTypeHasResultSet(int sqlType) {
    return sqlType == SQLTYPE_SELECT || IsStoredProcedure(sqlType);
}

MarkerWalk::MarkerWalk(const char* sql) {
    Check(m_tokenizer.InitWithUTF8(sql));
    m_tokenizer.MarkStart();
    const SQL_TOKEN* const first = m_tokenizer.NextToken();
    if (m_tokenizer.LastErrorCode() == VORDA_OUT_OF_MEMORY) throw std::bad_alloc();
    m_sqlType = Classify(*first);
}

// Only a token whose source may begin with a marker's first character is copied: most of a long
// statement is read over.
const SQL_TOKEN* MarkerWalk::NextPlaceholder() {
    while (!m_tokenizer.IsEOF()) {
        const char* const before = m_tokenizer.Position();
        SqlLexeme lexeme;
        const bool read = m_tokenizer.NextLexeme(lexeme) == VORDA_OK;
        // A character that starts no token stays where it is.
        if (m_tokenizer.Position() == before) m_tokenizer.SkipCharacter();
        const bool marker = read && MayBeMarker(lexeme) && IsMarker(Taken(lexeme));
        // In a procedure call names stand on the left of "=", only what follows it is a value.
        m_isNumbered = marker && (m_afterEquals || !IsStoredProcedure(m_sqlType));
        if (marker) m_place = lexeme.source.data();
        if (m_isNumbered || !marker) {
            m_afterEquals = read && lexeme.kind == TK_OPERATOR && lexeme.source == "=";
        }
        if (m_isNumbered || (marker && lexeme.source == "?")) return &m_tokenizer.LastToken();
    }
    return nullptr;
}

const SQL_TOKEN* MarkerWalk::NextMarker() {
    const SQL_TOKEN* marker;
    do marker = NextPlaceholder();
    while (marker != nullptr && !m_isNumbered);
    return marker;
}

const SQL_TOKEN& MarkerWalk::Taken(const SqlLexeme& lexeme) {
    Check(m_tokenizer.TakeToken(lexeme));
    return m_tokenizer.LastToken();
}

std::string_view MarkerWalk::TakeText() {
    const std::string_view text = m_tokenizer.MarkedText();
    m_tokenizer.MarkStart();
    return text;
}

int CountPlaceholders(const char* sql) {
    MarkerWalk walk(sql);
    int count = 0;
    while (walk.NextPlaceholder() != nullptr) ++count;
    return count;
}

std::string_view AroundPlaceholder(const char* sql, long long n) {
    constexpr std::ptrdiff_t kReach = 24;
    MarkerWalk walk(sql);
    do {
        if (walk.NextPlaceholder() == nullptr) return {};
    } while (n-- > 0);
    const auto splits = [](const char* p) {
        return (static_cast<unsigned char>(*p) & 0xC0) == 0x80;
    };
    const char* begin = walk.Place() - std::min(walk.Place() - sql, kReach);
    while (splits(begin)) ++begin;
    const char* end = walk.Place() + strnlen(walk.Place(), kReach);
    while (splits(end)) ++end;
    return {begin, static_cast<std::size_t>(end - begin)};
}

int NormalizeSQL(const char* originalSql, DynStr& normalizedSql, int* sqlType,
                 int* paramCount) noexcept {
    const int before = normalizedSql.Length();
    *sqlType = SQLTYPE_OTHER;
    int markers = 0;
    int status = VORDA_OK;
    try {
        MarkerWalk walk(originalSql);
        markers = AppendNumbered(walk, normalizedSql);
        *sqlType = walk.SqlType();
    } catch (...) {
        normalizedSql.Resize(before, nullptr);
        status = VORDA_OUT_OF_MEMORY;
    }
    if (paramCount != nullptr) *paramCount = markers;
    return status;
}

int NormalizeSQL(const char* originalSql, DynStr& normalizedSql, const char** verb) noexcept {
    static constexpr const char* kWords[] = {"SELECT", "UPDATE", "INSERT", "DELETE"};
    *verb = nullptr;
    try {
        const int sqlType = MarkerWalk(originalSql).SqlType();
        if (sqlType < SQLTYPE_SELECT || sqlType > SQLTYPE_DELETE) return -1;
        if (const int status = normalizedSql.Set(originalSql); status != VORDA_OK) return status;
        *verb = kWords[sqlType - SQLTYPE_SELECT];
        return VORDA_OK;
    } catch (...) {
        return VORDA_OUT_OF_MEMORY;
    }
}
