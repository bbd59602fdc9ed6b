// The connection-string parser of the embedded runtime: what it reads, written anew, reads the
// same.
#include "core/error.h"
#include "fuzz.h"
#include "sqlite/options.h"

namespace {

using embedded::SqliteOptions;
using fuzz::require;

std::optional<SqliteOptions> read(std::string_view text) {
    try {
        return embedded::readOptions(embedded::ConnectString(text));
    } catch (const embedded::Error&) {
        return std::nullopt;
    }
}

std::string braced(std::string_view value) {
    std::string text = "{";
    for (const char c : value) text += c == '}' ? std::string("}}") : std::string(1, c);
    return text + "}";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Exactly as large as the text, for the parser takes a length.
    const std::vector<char> exact(data, data + size);
    const std::string_view text(exact.data(), exact.size());
    const auto seen = read(text);
    if (!seen) {
        fuzz::tell("refused");
        return 0;
    }
    fuzz::tell(seen->database, seen->openFlags, seen->timeoutMs);
    if (!seen->unknownKeys.empty()) fuzz::tell("unknown", seen->unknownKeys);
    require(!seen->database.empty() && seen->timeoutMs >= 0, "what is accepted can be opened");

    // Neither braces nor blanks nor an alias change anything; the first of equal keys counts.
    const std::string again = " ;; DATA SOURCE = " + braced(seen->database) + " ;";
    const auto same = read(again + std::string(text));
    require(same.has_value(), "what was accepted is accepted again");
    fuzz::requireSame(same->database, seen->database, "the database");
    require(same->openFlags == seen->openFlags && same->timeoutMs == seen->timeoutMs, "the rest");
    return 0;
}
