#include "error.h"

#include <sqlite3.h>

#include "message.h"

namespace embedded {

Error::Error(const char* state, const std::string& text, int native)
    : Error(Verbatim{}, state, runtimeMessage(text), native) {}

Error Error::fromSqlite(const char* state, const std::string& text, int extendedCode) {
    return {Verbatim{}, state, sqliteMessage(text), extendedCode};
}

Error sequenceError(const std::string& what) {
    return {"HY010", what, SQLITE_MISUSE};
}

Error inheritedError() {
    return {"08S01",
            "The connection was opened before this process was forked and belongs to its parent. "
            "Open another one here.",
            SQLITE_MISUSE};
}

Error notSupported(const std::string& what) {
    return {"HYC00", what, SQLITE_ERROR};
}

}  // namespace embedded
