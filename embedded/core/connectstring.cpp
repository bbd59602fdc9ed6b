#include "core/connectstring.h"

#include <algorithm>
#include <iterator>

#include "core/error.h"
#include "core/message.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr const char* kBadAttribute = "HY000";

/// Behind such a key an unbraced value may end at a semicolon of its own.
bool namesSecret(std::string_view key) {
    const std::string word = lower(key);
    constexpr std::string_view kParts[] = {"pwd", "pass", "pw", "secret", "token", "key"};
    return std::any_of(std::begin(kParts), std::end(kParts), [&word](std::string_view part) {
        return word.find(part) != std::string::npos;
    });
}

[[noreturn]] void fail(const std::string& what) {
    throw Error(kBadAttribute, "Connection string: " + what);
}

/// Takes the value in braces off the front of `rest`, the semicolon behind it not included.
std::string takeBraced(std::string_view& rest, const std::string& key) {
    std::string value;
    rest.remove_prefix(1);
    for (;;) {
        const size_t close = rest.find('}');
        if (close == std::string_view::npos) fail("the value of " + key + " lacks its closing }.");
        value += rest.substr(0, close);
        rest.remove_prefix(close + 1);
        if (!rest.starts_with('}')) break;
        value += '}';
        rest.remove_prefix(1);
    }
    if (!trimmed(rest.substr(0, rest.find(';'))).empty()) {
        fail("text follows the closing } of the value of " + key + ".");
    }
    return value;
}

/// What is wrong with the part `number` of a string, which is `part` and has no key.
[[noreturn]] void refusePart(std::string_view text, size_t number, std::string_view part) {
    // With nothing in front of it, and nothing behind, it is no password's end.
    if (trimmed(text) == part) {
        fail("Key=Value expected; for a file it is Database=" + std::string(part) + ".");
    }
    fail("part " + std::to_string(number) +
         " is no Key=Value; a value with a semicolon in it goes into braces: {…}.");
}

}  // namespace

ConnectString::ConnectString(std::string_view text) : m_text(text) {
    std::string_view rest = text;
    bool behindSecret = false;
    for (size_t number = 1; !rest.empty(); ++number) {
        const size_t equals = rest.find_first_of("=;");
        const std::string_view key = trimmed(rest.substr(0, equals));
        const bool hasValue = equals != std::string_view::npos && rest[equals] == '=';
        rest.remove_prefix(equals == std::string_view::npos ? rest.size() : equals + 1);
        if (!hasValue) {
            if (!key.empty()) refusePart(text, number, key);
            continue;
        }
        if (key.empty()) fail("a value has no key.");
        Pair pair{std::string(key), {}, behindSecret};
        rest = trimmed(rest);
        if (rest.starts_with('{')) {
            pair.value = takeBraced(rest, behindSecret ? "a key" : inQuotes(key));
        } else {
            pair.value = trimmed(rest.substr(0, rest.find(';')));
            behindSecret = behindSecret || namesSecret(key);
        }
        rest.remove_prefix(std::min(rest.size(), std::min(rest.find(';'), rest.size()) + 1));
        m_pairs.push_back(std::move(pair));
    }
}

bool ConnectString::has(std::string_view key) const noexcept {
    return std::any_of(m_pairs.begin(), m_pairs.end(),
                       [key](const Pair& pair) { return sameWord(pair.key, key); });
}

}  // namespace embedded
