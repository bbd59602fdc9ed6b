// The connection-string parser of the embedded runtime against a grammar in regular expressions.
#include <sqlite3.h>

#include <cmath>
#include <optional>
#include <regex>

#include "core/error.h"
#include "fuzz.h"
#include "sqlite/options.h"

namespace {

using embedded::SqliteOptions;
using fuzz::lower;
using fuzz::require;

struct Pair {
    std::string key;
    std::string value;
};

std::optional<std::vector<Pair>> readPairs(std::string_view whole) {
    // A key without blanks at its ends, and a value in braces or one that goes on to a semicolon.
    static const std::regex kPair(
        R"(\s*([^;=\s](?:[^;=]*[^;=\s])?)\s*=\s*(?:\{((?:[^}]|\}\})*)\}|([^;{\s][^;]*?)?)\s*;)");
    static const std::regex kNone(R"(\s*;)");
    std::vector<Pair> pairs;
    const std::string text = std::string(whole) + ";";
    for (auto at = text.begin(); at != text.end();) {
        constexpr auto kHere = std::regex_constants::match_continuous;
        std::smatch found;
        if (std::regex_search(at, text.end(), found, kPair, kHere)) {
            std::string value = found[2].matched ? found[2] : found[3];
            for (auto i = value.find("}}"); found[2].matched && i != value.npos;) {
                value.erase(i, 1);
                i = value.find("}}", i + 1);
            }
            pairs.push_back({found[1], value});
        } else if (!std::regex_search(at, text.end(), found, kNone, kHere)) {
            return std::nullopt;
        }
        at = found[0].second;
    }
    return pairs;
}

std::optional<int> milliseconds(const std::string& text) {
    static const std::regex kNumber(R"(-?(\d+\.?\d*|\.\d+))");
    if (!std::regex_match(text, kNumber)) return std::nullopt;
    const bool negative = text.starts_with('-');
    const std::string digits = text.substr(negative ? 1 : 0);
    const double value = std::strtod(digits.c_str(), nullptr);
    const bool zero = digits.find_first_of("123456789") == std::string::npos;
    // Too small for a double is refused like too large.
    if (value > 2e6 || (negative && !zero) || (value == 0 && !zero)) return std::nullopt;
    return static_cast<int>(value * 1000);
}

std::optional<SqliteOptions> expect(const std::vector<Pair>& pairs) {
    const auto valueOf = [&](std::string_view a, std::string_view b) -> std::optional<std::string> {
        for (const Pair& pair : pairs) {
            if (lower(pair.key) == a || lower(pair.key) == b) return pair.value;
        }
        return std::nullopt;
    };
    SqliteOptions options;
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Exactly as large as the text, for the parser takes a length.
    const std::vector<char> exact(data, data + size);
    const std::string_view text(exact.data(), exact.size());
    const auto pairs = readPairs(text);
    const auto expected = pairs ? expect(*pairs) : std::nullopt;
    try {
        const SqliteOptions seen = embedded::readOptions(embedded::ConnectString(text));
        require(expected.has_value(), "it should be refused");
        fuzz::requireSame(seen.database, expected->database, "the database");
        require(seen.openFlags == expected->openFlags, "the mode");
        require(seen.timeoutMs == expected->timeoutMs, "the time-out");
        require(seen.unknownKeys == expected->unknownKeys, "the unknown keys");
    } catch (const embedded::Error& error) {
        require(!expected.has_value(), error.what());
    }
    return 0;
}
