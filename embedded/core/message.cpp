#include "core/message.h"

#include <utility>

namespace embedded {
namespace {

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

}  // namespace embedded
