#include "core/callertext.h"

#include <string>

namespace embedded {

std::string_view inputText(const SQLCHAR* text, SQLLEN length) {
    if (length < 0 && length != SQL_NTS) {
        throw Error("HY090", "Invalid text length " + std::to_string(length) + ".");
    }
    if (!text) {
        if (length == 0) return {};
        throw Error("HY009", "Invalid use of a null pointer as text.");
    }
    const char* chars = reinterpret_cast<const char*>(text);
    return length == SQL_NTS ? std::string_view(chars)
                             : std::string_view(chars, static_cast<size_t>(length));
}

}  // namespace embedded
