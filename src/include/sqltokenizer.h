// The SQL tokenizer. It classifies lexemes and skips comments so that its users can see statement
// verbs, parameter markers and the token before a marker, and copy the text around them; it never
// validates SQL.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "include/unicode.h"
#include "util/def.h"
#include "util/dynstr.h"

typedef enum _token_kind : int {
    TK_IDENTIFIER = 0,  // plain and quoted identifiers, "*", and the empty NONE_TOKEN
    TK_KEYWORD = 1,
    TK_PARAMETER = 2,  // "?" and words that begin with "@"
    TK_STR = 3,        // string literals and "#" runs
    TK_UNQUOTEDSTR = 4,
    TK_NUMBER = 5,
    TK_BOOL = 6,
    TK_OPERATOR = 7,  // the comma included
    TK_COMMENT = 8,   // never returned: comments are skipped
    TK_OPEN = 9,
    TK_CLOSE = 10,
    TK_DOT = 11,
    TK_NULL = 12,  // "NULL", and the error token
    TK_ESCINITIATOR = 13,
    TK_ESCTERMINATOR = 14,
} TOKEN_KIND;

/// One token. The text is UTF-8 without quotes and escape characters. The Set operations return
/// VORDA_OK or VORDA_OUT_OF_MEMORY, after which the text is what it was.
typedef struct VORDA_EXPORT _sql_token {
    TOKEN_KIND tkKind;
    DynStr sValue;
    int bWasQuoted = 0;  // 1 for "*" and for identifiers in brackets, double quotes or back-ticks

    /// A text of up to 99 bytes.
    explicit _sql_token(TOKEN_KIND kind = TK_NULL, std::string_view text = {}) noexcept;
    _sql_token(const _sql_token&) = delete;
    _sql_token& operator=(const _sql_token&) = delete;

    int Set(const _sql_token& other);
    int Set(TOKEN_KIND kind, std::string_view text, int wasQuoted = 0);
    bool Equals(const _sql_token& other) const;
    /// Compares kind and text.
    bool Equals(TOKEN_KIND kind, std::string_view text) const;
    bool IsKeyword() const { return tkKind == TK_KEYWORD; }
    bool IsOperator() const { return tkKind == TK_OPERATOR; }
    bool IsParameter() const { return tkKind == TK_PARAMETER; }
    /// A copy, owned by the caller; null for want of memory.
    std::unique_ptr<_sql_token> Clone() const noexcept;
    std::string_view Text() const {
        return {sValue.Deref(), static_cast<std::size_t>(sValue.Length())};
    }
} SQL_TOKEN;

/// A token as it stands in the text, before anything is copied.
struct SqlLexeme {
    TOKEN_KIND kind = TK_IDENTIFIER;  // TK_IDENTIFIER for keywords as well: no word is looked up
    std::string_view source;          // without quotes, but with escape characters
    int wasQuoted = 0;                // as bWasQuoted
    char quote = 0;                   // the closing one, when `source` has escape characters
    bool isWord = false;
    bool isEnd = false;         // the text is over
    bool afterComment = false;  // stands behind a comment
};

/// The token for nothing: end of input, a statement separator, an empty read.
extern VORDA_EXPORT const SQL_TOKEN NONE_TOKEN;
/// A literal NULL; its address, as a result of NextToken, stands for a failure.
extern VORDA_EXPORT const SQL_TOKEN NULL_TOKEN;
extern VORDA_EXPORT const SQL_TOKEN ANONPARAM_TOKEN;
extern VORDA_EXPORT const SQL_TOKEN ESCINITIATO_TOKEN;
extern VORDA_EXPORT const SQL_TOKEN ESCTERMINATOR_TOKEN;
extern VORDA_EXPORT const SQL_TOKEN OPEN_TOKEN;
extern VORDA_EXPORT const SQL_TOKEN CLOSE_TOKEN;
extern VORDA_EXPORT const SQL_TOKEN DOT_TOKEN;

/// Character classes, ASCII only by design; each answers 0 or 1 for one UTF-16 unit.
VORDA_EXPORT int SQLTK_IsWhitespace(unsigned short c);
VORDA_EXPORT int SQLTK_IsLetter(unsigned short c);
VORDA_EXPORT int SQLTK_IsDigit(unsigned short c);
VORDA_EXPORT int SQLTK_IsLetterOrDigit(unsigned short c);

/// Reads one statement forward, once. It works on the caller's UTF-8 bytes in place, so texts of
/// any length cost no memory and every byte outside the tokens' own texts is the caller's. All
/// characters that mean anything are ASCII, and no byte of a longer character looks like one; a
/// byte that is no valid UTF-8 counts as a character of its own (U+FFFD) and so never hides what
/// follows it.
class VORDA_EXPORT SqlTokenizer {
  public:
    /// Loads a text, which must outlive the tokenizer's use. It ends at the first NUL; null counts
    /// as empty. VORDA_OUT_OF_MEMORY, with an empty text loaded, beyond INT_MAX bytes.
    int InitWithUTF8(const char* sql);
    /// The same, reading at most `length` bytes.
    int InitWithUTF8(const char* sql, std::size_t length);

    /// Skips white space and starts the stretch of MarkedText here.
    void MarkStart();
    /// The source text from the mark to the position.
    std::string_view MarkedText() const;

    /// Reads one token, after white space and comments. The result stays valid until the next call:
    /// the address of the tokenizer's own token, of NONE_TOKEN at the end of the text, or of
    /// NULL_TOKEN on a failure, whose code LastErrorCode then gives. After a comment it is always
    /// the tokenizer's own token, empty for the end and for a failure. A character that starts no
    /// token (VORDA_SQL_UNKNOWN_CHARACTER) is not consumed: use SkipCharacter to go on.
    const SQL_TOKEN* NextToken();
    /// The same without a copy of the text, for those who pass most tokens over: VORDA_OK or the
    /// failure's code, which LastErrorCode gives, too.
    int NextLexeme(SqlLexeme& lexeme);
    /// The token of the lexeme just read, in the tokenizer's own record: VORDA_OK or a code.
    int TakeToken(const SqlLexeme& lexeme);
    /// Steps over one whole character.
    void SkipCharacter();

    bool IsEOF() const { return m_lpszSQLSeek == m_lpszSQLEnd; }
    const char* Position() const { return m_lpszSQLSeek; }
    const SQL_TOKEN& LastToken() const { return m_stLastToken; }
    /// 1 when the last token came from quoted text.
    int LastTokenWasQuoted() const { return m_bLastTokenWasQuoted; }
    /// The code of the last failure since the text was loaded, or VORDA_OK.
    int LastErrorCode() const { return m_wLastErrorCode; }

    /// The kind of a plain word.
    static TOKEN_KIND GetTokenType(std::string_view word);

  private:
    unsigned char PeekChar() const;
    unsigned char PeekNextChar() const;
    void SkipWhile(int classes);
    void SkipWhitespace();
    bool SkipComment();
    void ReadLineComment();
    void ReadMultiLineComment();
    // The readers fill the lexeme and return VORDA_OK or a failure code; the lexeme is unspecified
    // then.
    int ReadLexeme(SqlLexeme& lexeme);
    int ReadIdentifier(SqlLexeme& lexeme);
    int ReadString(SqlLexeme& lexeme);
    int ReadNumberOrDate(SqlLexeme& lexeme);
    int ReadOperator(SqlLexeme& lexeme);
    int ReadQuoted(SqlLexeme& lexeme, TOKEN_KIND kind, char terminator);
    int ReadUntil(char terminator, SqlLexeme& lexeme);
    int TakeSingle(SqlLexeme& lexeme, TOKEN_KIND kind);

    const char* m_lpszSQLEnd = "";
    const char* m_lpszSQLSeek = m_lpszSQLEnd;
    const char* m_lpszAnchor = m_lpszSQLEnd;
    int m_wLastErrorCode = VORDA_OK;
    SQL_TOKEN m_stLastToken;
    int m_bLastTokenWasQuoted = 0;
};
