#include "connectstring.h"

#include <sqlite3.h>

#include <charconv>
#include <optional>

#include "error.h"
#include "message.h"
#include "text.h"

namespace embedded {
namespace {

constexpr const char* kBadAttribute = "HY000";

struct Pair {
    std::string key;
    std::string value;
};

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

int openFlagsOf(std::string_view mode) {
    struct Entry {
        std::string_view name;
        int flags;
    };
    static constexpr Entry kModes[] = {
        {"rwc", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE},
        {"rw", SQLITE_OPEN_READWRITE},
        {"ro", SQLITE_OPEN_READONLY},
    };
    for (const Entry& entry : kModes) {
        if (sameWord(entry.name, mode)) return entry.flags;
    }
    throw Error(kBadAttribute,
                "Connection string: Mode must be rwc, rw or ro, not " + quoted(mode) + ".");
}

int timeoutOf(std::string_view seconds) {
    constexpr double kLongest = 2'000'000;
    double value = -1;
    const char* end = seconds.data() + seconds.size();
    const auto parsed = std::from_chars(seconds.data(), end, value, std::chars_format::fixed);
    if (parsed.ec != std::errc{} || parsed.ptr != end || !(value >= 0 && value <= kLongest)) {
        throw Error(kBadAttribute,
                    "Connection string: Timeout must be a number of seconds from 0 to " +
                        std::to_string(static_cast<int>(kLongest)) + ", not " + quoted(seconds) +
                        ".");
    }
    return static_cast<int>(value * 1000);
}

}  // namespace

ConnectOptions parseConnectString(std::string_view text) {
    ConnectOptions options;
    std::optional<std::string> database;
    std::optional<std::string> mode;
    std::optional<std::string> timeout;
    // A driver manager leaves the key by which it found this library in the string.
    std::optional<std::string> driver;
    const struct {
        std::string_view key;
        std::optional<std::string>& value;
    } known[] = {{"Database", database},
                 {"Data Source", database},
                 {"Mode", mode},
                 {"Timeout", timeout},
                 {"Driver", driver}};

    while (!text.empty()) {
        std::optional<Pair> pair = takePair(text);
        if (!pair) continue;
        bool found = false;
        for (const auto& entry : known) {
            if (!sameWord(entry.key, pair->key)) continue;
            found = true;
            if (!entry.value) entry.value = std::move(pair->value);
            break;
        }
        if (!found) options.unknownKeys.push_back(std::move(pair->key));
    }

    if (!database || database->empty()) {
        throw Error(kBadAttribute,
                    "Connection string: Database is missing; give a path or :memory:.");
    }
    if (database->find('\0') != std::string::npos) {
        throw Error(kBadAttribute, "Connection string: Database contains a NUL character.");
    }
    options.database = std::move(*database);
    options.openFlags = openFlagsOf(mode.value_or("rwc"));
    if (timeout) options.timeoutMs = timeoutOf(*timeout);
    return options;
}

}  // namespace embedded
