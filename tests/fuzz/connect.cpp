// The connection-string parser of the embedded runtime against a character-by-character machine.
#include <sqlite3.h>

#include <cmath>
#include <optional>
#include <utility>

#include "connectstring.h"
#include "error.h"
#include "fuzz.h"

namespace {

using embedded::ConnectOptions;
using fuzz::require;

bool isBlank(char c) {
    return std::string_view(" \t\r\n\f\v").find(c) != std::string_view::npos;
}

std::string stripped(std::string text) {
    while (!text.empty() && isBlank(text.back())) text.pop_back();
    while (!text.empty() && isBlank(text.front())) text.erase(0, 1);
    return text;
}

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    return text;
}

struct Pair {
    std::string key;
    std::string value;
};

std::optional<std::vector<Pair>> readPairs(std::string_view text) {
    enum { Key, Before, Plain, Braced, Brace, Behind } state = Key;
    std::vector<Pair> pairs;
    Pair pair;
    const auto finish = [&] {
        pairs.push_back(std::exchange(pair, {}));
        state = Key;
    };
    for (std::size_t i = 0; i <= text.size(); ++i) {
        const bool end = i == text.size();
        const char c = end ? ';' : text[i];
        switch (state) {
            case Key:
                if (c == ';' && !stripped(pair.key).empty()) return std::nullopt;
                if (c == ';') pair.key.clear();
                if (c == '=') {
                    pair.key = stripped(pair.key);
                    if (pair.key.empty()) return std::nullopt;
                    state = Before;
                } else if (c != ';') {
                    pair.key += c;
                }
                break;
            case Before:
                if (isBlank(c)) break;
                state = c == '{' ? Braced : Plain;
                if (c == '{') break;
                [[fallthrough]];
            case Plain:
                if (c != ';') {
                    pair.value += c;
                } else {
                    pair.value = stripped(pair.value);
                    finish();
                }
                break;
            case Braced:
                if (end) return std::nullopt;
                if (c == '}') {
                    state = Brace;
                } else {
                    pair.value += c;
                }
                break;
            case Brace:
                if (c == '}') {
                    pair.value += c;
                    state = Braced;
                    break;
                }
                state = Behind;
                [[fallthrough]];
            case Behind:
                if (c == ';') {
                    finish();
                } else if (!isBlank(c)) {
                    return std::nullopt;
                }
        }
    }
    return pairs;
}

std::optional<int> milliseconds(const std::string& text) {
    const bool negative = text.starts_with('-');
    const std::string digits = text.substr(negative ? 1 : 0);
    if (digits.find_first_not_of("0123456789.") != std::string::npos ||
        digits.find_first_of("0123456789") == std::string::npos ||
        digits.find('.') != digits.rfind('.')) {
        return std::nullopt;
    }
    const double value = std::strtod(digits.c_str(), nullptr);
    const bool zero = digits.find_first_of("123456789") == std::string::npos;
    // Too small for a double is refused like too large.
    if (value > 2e6 || (negative && !zero) || (value == 0 && !zero)) return std::nullopt;
    return static_cast<int>(value * 1000);
}

std::optional<ConnectOptions> expect(const std::vector<Pair>& pairs) {
    const auto valueOf = [&](std::string_view a, std::string_view b) -> std::optional<std::string> {
        for (const Pair& pair : pairs) {
            if (lower(pair.key) == a || lower(pair.key) == b) return pair.value;
        }
        return std::nullopt;
    };
    ConnectOptions options;
    options.database = valueOf("database", "data source").value_or("");
    if (options.database.empty() || options.database.find('\0') != std::string::npos) return {};
    const std::string mode = lower(valueOf("mode", "").value_or("rwc"));
    if (mode != "ro" && mode != "rw" && mode != "rwc") return {};
    options.openFlags = mode == "ro" ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
    if (mode == "rwc") options.openFlags |= SQLITE_OPEN_CREATE;
    if (const auto timeout = valueOf("timeout", "")) {
        const auto value = milliseconds(*timeout);
        if (!value) return {};
        options.timeoutMs = *value;
    }
    for (const Pair& pair : pairs) {
        const std::string key = "|" + lower(pair.key) + "|";
        constexpr std::string_view kKnown = "|database|data source|mode|timeout|driver|";
        if (key.find('|', 1) != key.size() - 1 || kKnown.find(key) == std::string_view::npos) {
            options.unknownKeys.push_back(pair.key);
        }
    }
    return options;
}

std::string braced(std::string_view value) {
    std::string text = "{";
    for (const char c : value) text += c == '}' ? std::string("}}") : std::string(1, c);
    return text + "}";
}

void requireSame(const ConnectOptions& seen, const ConnectOptions& expected) {
    fuzz::requireSame(seen.database, expected.database, "the database");
    require(seen.openFlags == expected.openFlags, "the mode");
    require(seen.timeoutMs == expected.timeoutMs, "the time-out");
    require(seen.unknownKeys == expected.unknownKeys, "the unknown keys");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Exactly as large as the text, for the parser takes a length.
    const std::vector<char> exact(data, data + size);
    const std::string_view text(exact.data(), exact.size());
    const auto pairs = readPairs(text);
    const auto expected = pairs ? expect(*pairs) : std::nullopt;
    try {
        const ConnectOptions seen = embedded::parseConnectString(text);
        require(expected.has_value(), "it should be refused");
        requireSame(seen, *expected);
    } catch (const embedded::Error& error) {
        require(!expected.has_value(), error.what());
        return 0;
    }
    // Any value can be written in braces.
    std::string again;
    for (const Pair& pair : *pairs) again += pair.key + " = " + braced(pair.value) + " ;";
    requireSame(embedded::parseConnectString(again), *expected);
    return 0;
}
