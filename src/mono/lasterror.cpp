#include "mono/lasterror.h"

#include <algorithm>
#include <cstring>

#include "util/def.h"

void LastError::Keep(int code, const char* text, int length) {
    m_errCode = code;
    if (m_errMsg.Set(text, length) == VORDA_OK) return;
    // The text of an earlier error would be taken for this one's. These words fit the string
    // itself.
    m_errMsg.Set("The text of the error is lost for want of memory.");
}

int LastError::SetError(int code, const char* text) {
    Keep(code, text, static_cast<int>(std::strlen(text)));
    return 0;
}

int LastError::SetError(SQLHENV henv, SQLHDBC hdbc, SQLHSTMT hstmt) {
    constexpr SQLSMALLINT messageSize = 1024;
    char state[6] = {};
    char message[messageSize] = {};
    SQLINTEGER nativeError = 0;
    SQLSMALLINT textLength = 0;
    const SQLRETURN result = SQLErrorW(henv, hdbc, hstmt, AsWideBuffer(state), &nativeError,
                                       AsWideBuffer(message), messageSize, &textLength);
    switch (result) {
        case SQL_SUCCESS:
            Keep(nativeError, message, std::clamp<int>(textLength, 0, messageSize - 1));
            break;
        case SQL_ERROR:
            SetError(VORDA_ODBC_ERROR, "Unable to retrieve the error");
            break;
        case SQL_NO_DATA:
            SetError(VORDA_OK, "");
            break;
        default:
            // A message too long for the buffer, or a dead handle, leaves the previous error in
            // place.
            break;
    }
    return 0;
}

bool LastError::Passed(SQLRETURN result, SQLHENV henv, SQLHDBC hdbc, SQLHSTMT hstmt) {
    if (result == SQL_ERROR || result == SQL_SUCCESS_WITH_INFO) SetError(henv, hdbc, hstmt);
    return result != SQL_ERROR;
}

int LastError::ComposeError(const char* prefix, const char* inner, int status) {
    if (*inner != '\0') {
        DynStr text;
        text.Set(prefix);
        text.Append(": ");
        text.Append(inner);
        // The status passes through ODBC's 16 bits on its way into the code.
        SetError(static_cast<short>(status), text.Deref());
    }
    return status;
}
