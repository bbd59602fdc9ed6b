#include "core/error.h"

#include "core/message.h"

namespace embedded {

Error::Error(std::string_view state, const std::string& text, int native)
    : Error(Verbatim{}, state, runtimeMessage(text), native) {}

Error Error::fromSqlite(std::string_view state, const std::string& text, int extendedCode) {
    return {Verbatim{}, state, sqliteMessage(text), extendedCode};
}

Error Error::fromDriver(std::string_view state, const std::string& text, int native) {
    // A failure without a code would be taken for a warning.
    Error error{Verbatim{}, state, driverMessage(state, text),
                native != 0 ? native : native::kError};
    error.m_isFromDriver = true;
    return error;
}

Error sequenceError(const std::string& what) {
    return {"HY010", what, native::kMisuse};
}

Error inheritedError() {
    return {"08S01",
            "The connection was opened before this process was forked and belongs to its parent. "
            "Open another one here.",
            native::kMisuse};
}

Error lostTransaction(std::string_view state) {
    return {state,
            "The whole transaction was rolled back when a statement failed; nothing is left of it.",
            native::kMisuse};
}

Error notSupported(const std::string& what) {
    return {"HYC00", what, native::kError};
}

}  // namespace embedded
