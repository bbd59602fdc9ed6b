// What happens to a statement before it reaches the provider: classification by its first word and
// numbering of its parameter markers.
#pragma once

#include <string_view>

#include "include/sqltokenizer.h"
#include "util/def.h"
#include "util/dynstr.h"

/// Statement kinds, by the first word; anything else is SQLTYPE_OTHER. The numbers are fixed.
enum SqlType : int {
    SQLTYPE_OTHER = 0,
    SQLTYPE_SELECT = 1,
    SQLTYPE_UPDATE = 2,
    SQLTYPE_INSERT = 3,
    SQLTYPE_DELETE = 4,
    SQLTYPE_EXECUTE = 5,
    SQLTYPE_EXEC = 6,
};

/// True for the two procedure calls.
VORDA_EXPORT bool IsStoredProcedure(int sqlType);
VORDA_EXPORT bool IsStoredProceduresqlType(int sqlType);
/// Whether executing such a statement yields rows: SELECT and both procedure calls.
VORDA_EXPORT bool SQLTypeHasResultSet(int sqlType);

/// One forward walk over the parameter markers of a statement. All rules about what counts as a
/// marker live here, so that the numbers NormalizeSQL writes and the values other users look up for
/// the same markers cannot disagree. The constructor and NextMarker throw std::bad_alloc: a token
/// that could not be read to its end must not turn the rest of a string into markers.
class MarkerWalk {
  public:
    /// Reads the first word of `sql`, NUL-terminated UTF-8, which must outlive the walk.
    explicit MarkerWalk(const char* sql);

    int SqlType() const { return m_sqlType; }
    /// The next marker that counts, valid until the next call, or null at the end of the statement.
    /// Its text is the marker as written: "?", "@name" or ":name".
    const SQL_TOKEN* NextMarker();
    /// The next one that takes a value: a marker that counts, or a "?" of a procedure call that is
    /// left as written, for the provider to number.
    const SQL_TOKEN* NextPlaceholder();
    /// Where the text of the last marker begins in the statement.
    const char* Place() const { return m_place; }
    /// The source text since the last call, or since the first character that is not white space,
    /// up to and including the marker just read (or to the end). White space that follows is
    /// dropped.
    std::string_view TakeText();

  private:
    const SQL_TOKEN& Taken(const SqlLexeme& lexeme);

    SqlTokenizer m_tokenizer;
    int m_sqlType = SQLTYPE_OTHER;
    const char* m_place = nullptr;
    bool m_isNumbered = false;
    // Whether the last token that was not an ignored marker is an "=".
    bool m_afterEquals = false;
};

/// The values that a statement takes, which is the number of its placeholders; throws as
/// MarkerWalk.
int CountPlaceholders(const char* sql);
/// The text around the n-th placeholder, counted from 0, whole characters of it; empty when there
/// are fewer. Throws as MarkerWalk.
std::string_view AroundPlaceholder(const char* sql, long long n);

/// Appends `originalSql` to `normalizedSql` with every parameter marker replaced by "@1 ", "@2 ", …
/// in order of appearance; all other bytes stay as written, except white space at the very start
/// and directly after a marker. `sqlType` receives the statement's kind, `paramCount` (unless null)
/// the number of markers. Returns 0, or VORDA_OUT_OF_MEMORY with nothing appended, a kind of
/// SQLTYPE_OTHER and no markers: a statement must never be shortened silently.
VORDA_EXPORT int NormalizeSQL(const char* originalSql, DynStr& normalizedSql, int* sqlType,
                              int* paramCount) noexcept;

/// The light form: only for SELECT, INSERT, UPDATE and DELETE it points `verb` at that word
/// (static, upper-case), sets `normalizedSql` to the text unchanged and returns 0. Else `verb`
/// becomes null and the result is -1, or VORDA_OUT_OF_MEMORY.
VORDA_EXPORT int NormalizeSQL(const char* originalSql, DynStr& normalizedSql,
                              const char** verb) noexcept;
