#include "core/message.h"

#include "values/text.h"

namespace embedded {
namespace {

constexpr size_t kMaxQuoted = 40;

std::string shortened(std::string text, size_t limit) {
    constexpr std::string_view kEllipsis = "...";
    if (text.size() > limit) {
        text.resize(wholeCharacters(text, limit - kEllipsis.size()));
        text += kEllipsis;
    }
    return text;
}

std::string prefixed(std::string_view prefix, std::string_view text) {
    std::string message(prefix);
    message += text;
    return shortened(std::move(message), kMaxMessage);
}

}  // namespace

std::string runtimeMessage(std::string_view text) {
    return prefixed("[vorda][embedded] ", text);
}

std::string sqliteMessage(std::string_view text) {
    return prefixed("[vorda][SQLite] ", text);
}

std::string driverMessage(std::string_view state, std::string_view text) {
    return prefixed("[vorda][ODBC][" + std::string(state) + "] ", text);
}

std::string quoted(std::string_view value) {
    return "'" + shortened(std::string(value.substr(0, kMaxQuoted + 1)), kMaxQuoted) + "'";
}

}  // namespace embedded
