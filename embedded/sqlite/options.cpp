#include "sqlite/options.h"

#include <sqlite3.h>

#include <charconv>
#include <optional>

#include "core/error.h"
#include "core/message.h"
#include "values/text.h"

namespace embedded {
namespace {

constexpr const char* kBadAttribute = "HY000";

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
                "Connection string: Mode must be rwc, rw or ro, not " + inQuotes(mode) + ".");
}

int timeoutOf(std::string_view seconds) {
    constexpr double kLongest = 2'000'000;
    double value = -1;
    const char* end = seconds.data() + seconds.size();
    const auto parsed = std::from_chars(seconds.data(), end, value, std::chars_format::fixed);
    if (parsed.ec != std::errc{} || parsed.ptr != end || !(value >= 0 && value <= kLongest)) {
        throw Error(kBadAttribute,
                    "Connection string: Timeout must be a number of seconds from 0 to " +
                        std::to_string(static_cast<int>(kLongest)) + ", not " + inQuotes(seconds) +
                        ".");
    }
    return static_cast<int>(value * 1000);
}

}  // namespace

SqliteOptions readOptions(const ConnectString& text) {
    SqliteOptions options;
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

    for (const ConnectString::Pair& pair : text.pairs()) {
        bool found = false;
        for (const auto& entry : known) {
            if (!sameWord(entry.key, pair.key)) continue;
            found = true;
            if (!entry.value) entry.value = pair.value;
            break;
        }
        if (found) continue;
        std::string& keys = options.unknownKeys;
        keys += (keys.empty() ? "" : ", ") +
                (pair.mayBeSecret ? std::string("(a part of a value?)") : pair.key);
    }

    if (!database || database->empty()) {
        const std::string& keys = options.unknownKeys;
        throw Error(kBadAttribute,
                    "Connection string: Database is missing; give a path or :memory:" +
                        (keys.empty() ? "." : ". Not known: " + keys + "."));
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
