// The last error of a data source or a result set: a code, a text, and the rule by which an ODBC
// result changes them. Used by dbsource and resultset only.
#pragma once

#include "include/sqltypes.h"
#include "util/dynstr.h"

class LastError {
  public:
    int GetLastError() const { return m_errCode; }
    // UTF-8, never null, empty when there is no error. Valid until the next error is recorded.
    const char* GetLastErrorMessage() const { return m_errMsg.Deref(); }

  protected:
    // Records a code and a text.
    int SetError(int code, const char* text);
    // Records a code and a text, and returns the code.
    int Fail(int code, const char* text) {
        SetError(code, text);
        return code;
    }
    // Records the first diagnostic of one of the three handles; the other two are null. Returns 0.
    int SetError(SQLHENV henv, SQLHDBC hdbc, SQLHSTMT hstmt);

    // The rule for nearly every ODBC call of this layer: an error records the diagnostic and says
    // false; information records it and goes on; anything else is passed over.
    bool Passed(SQLRETURN result, SQLHENV henv, SQLHDBC hdbc, SQLHSTMT hstmt);

    // Puts "prefix: " before `inner` and records it with `status`; an empty `inner` changes
    // nothing, so that the outer object keeps what it knew. Returns the status.
    int ComposeError(const char* prefix, const char* inner, int status);

    int m_errCode = 0;
    DynStr m_errMsg;

  private:
    void Keep(int code, const char* text, int length);
};
