#include "core/connectstring.h"

#include <algorithm>
#include <optional>

#include "core/error.h"
#include "core/message.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr const char* kBadAttribute = "HY000";

using Pair = ConnectString::Pair;

/// Takes one "key=value" off the front of `rest`; nothing for an empty stretch between semicolons.
std::optional<Pair> takePair(std::string_view& rest) {
    const size_t equals = rest.find_first_of("=;");
    const std::string_view key = trimmed(rest.substr(0, equals));
    if (equals == std::string_view::npos || rest[equals] == ';') {
        rest.remove_prefix(equals == std::string_view::npos ? rest.size() : equals + 1);
        if (key.empty()) return std::nullopt;
        throw Error(kBadAttribute,
                    "Connection string: " + quoted(key) + " is not a Key=Value pair.");
    }
    if (key.empty()) throw Error(kBadAttribute, "Connection string: a value has no key.");
    Pair pair{std::string(key), {}};
    rest = trimmed(rest.substr(equals + 1));
    if (rest.starts_with('{')) {
        rest.remove_prefix(1);
        for (;;) {
            const size_t close = rest.find('}');
            if (close == std::string_view::npos) {
                throw Error(kBadAttribute, "Connection string: the value of " + quoted(key) +
                                               " lacks its closing }.");
            }
            pair.value += rest.substr(0, close);
            rest.remove_prefix(close + 1);
            if (!rest.starts_with('}')) break;
            pair.value += '}';
            rest.remove_prefix(1);
        }
        const size_t end = std::min(rest.find(';'), rest.size());
        if (!trimmed(rest.substr(0, end)).empty()) {
            throw Error(kBadAttribute,
                        "Connection string: text follows the closing } of the value of " +
                            quoted(key) + ".");
        }
        rest.remove_prefix(end);
    } else {
        const size_t end = std::min(rest.find(';'), rest.size());
        pair.value = trimmed(rest.substr(0, end));
        rest.remove_prefix(end);
    }
    if (!rest.empty()) rest.remove_prefix(1);
    return pair;
}

}  // namespace

ConnectString::ConnectString(std::string_view text) : m_text(text) {
    while (!text.empty()) {
        if (std::optional<Pair> pair = takePair(text)) m_pairs.push_back(std::move(*pair));
    }
}

bool ConnectString::has(std::string_view key) const noexcept {
    return std::any_of(m_pairs.begin(), m_pairs.end(),
                       [key](const Pair& pair) { return sameWord(pair.key, key); });
}

}  // namespace embedded
