// What the engine for data sources reads of statements, against regular expressions of the
// dialects; and its UTF-16, against iconv. The first byte chooses the dialect.
#include <iconv.h>

#include <charconv>
#include <iterator>
#include <optional>
#include <regex>

#include "core/error.h"
#include "fuzz.h"
#include "odbc/scanner.h"
#include "odbc/utf16.h"

namespace {

using fuzz::require;

struct Reading {
    const char* dbms;
    std::string expression;
    bool nestedComments;
    std::regex regex{expression};
};

/// A string between `q`, to the end of the text if need be.
std::string quoted(const std::string& q, bool escapes) {
    const std::string end = "(?![^])";
    return escapes ? q + "(?:[^" + q + "\\\\]|\\\\[^]|" + q + q + ")*(?:" + q + "|\\\\?" + end + ")"
                   : q + "(?:[^" + q + "]|" + q + q + ")*(?:" + q + "|" + end + ")";
}

// Group 1 is a dollar-quoted text, 2 its tag, 3 a marker.
std::string grammar(const std::string& special, bool dollars) {
    const std::string name = "0-9A-Za-z_\x80-\xFF";
    const std::string word = dollars ? name + "$" : name;
    const std::string none = "(?!)";
    const std::string tagged =
        "(\\$((?:[A-Za-z_\x80-\xFF][" + name + "]*)?)\\$(?:[^]*?\\$\\2\\$|[^]*))";
    return special + "|" + (dollars ? tagged : "(" + none + "(" + none + "))") +
           "|(\\?|@[0-9]+(?![" + name + "]))|@[0-9]*@*[" + word + "]*|[" + name + "][" + word +
           "]*|[^]";
}

const std::string kBlock = "/\\*(?:[^]*?\\*/|[^]*)|";

const Reading kReadings[] = {
    {"?", grammar(kBlock + "--[^\n]*|" + quoted("'", false) + "|" + quoted("\"", false), false),
     false},
    {"PostgreSQL",
     grammar("--[^\r\n]*|[eE]" + quoted("'", true) + "|" + quoted("'", false) + "|" +
                 quoted("\"", false),
             true),
     true},
    {"MariaDB",
     grammar(kBlock + "--(?=[ \t\r\n\f\v]|(?![^]))[^\n]*|#[^\n]*|" + quoted("'", true) + "|" +
                 quoted("\"", true) + "|" + quoted("`", false),
             false),
     false},
    {"SQLite",
     grammar(kBlock + "--[^\n]*|" + quoted("'", false) + "|" + quoted("\"", false) + "|" +
                 quoted("`", false) + "|\\[(?:[^\\]]|\\]\\])*(?:\\]|(?![^]))",
             false),
     false},
};

size_t nestedCommentEnd(std::string_view text) {
    int depth = 0;
    for (size_t i = 0; i + 1 < text.size(); ++i) {
        const std::string_view two = text.substr(i, 2);
        const int step = (two == "/*") - (two == "*/");
        depth += step;
        if (depth == 0) return i + 2;
        i += static_cast<size_t>(step != 0);
    }
    return text.size();
}

/// The text for the driver and its numbers, or the state of the failure.
std::string expected(const Reading& reading, const std::string& sql) {
    std::string text;
    std::string numbers;
    unsigned long largest = 0;
    for (auto at = sql.begin(); at != sql.end();) {
        std::smatch match;
        if (reading.nestedComments && std::string_view(&*at, 1) == "/" && at + 1 != sql.end() &&
            at[1] == '*') {
            const size_t length = nestedCommentEnd({&*at, static_cast<size_t>(sql.end() - at)});
            text.append(at, at + static_cast<std::ptrdiff_t>(length));
            at += static_cast<std::ptrdiff_t>(length);
            continue;
        }
        // The name characters in front belong to the match before, so nothing is looked at behind.
        require(std::regex_search(at, sql.end(), match, reading.regex,
                                  std::regex_constants::match_continuous),
                "everything is something");
        at = match[0].second;
        static const std::regex marker("@[0-9]");
        if (match[1].matched && std::regex_search(match[1].first, match[1].second, marker))
            return "42000";
        if (!match[3].matched) {
            text += match.str();
            continue;
        }
        unsigned long number = largest + 1;
        if (match.length() > 1) {
            const std::string digits = match.str().substr(1);
            const size_t first = std::min(digits.find_first_not_of('0'), digits.size());
            number = digits.size() - first > 5 ? 0 : std::stoul(digits);
        }
        if (number < 1 || number > 65535) return "07009";
        largest = std::max(largest, number);
        text += '?';
        numbers += " " + std::to_string(number);
    }
    return text + numbers + " of " + std::to_string(largest);
}

void checkScanner(const Reading& reading, const std::string& sql) {
    const embedded::Dialect& dialect = embedded::dialectOf(reading.dbms);
    std::string seen;
    try {
        const embedded::MarkedSql marked = embedded::markedSql(sql, dialect);
        seen = marked.text;
        for (const int number : marked.numbers) seen += " " + std::to_string(number);
        seen += " of " + std::to_string(marked.parameters);
        // In "@?", which is SQL nowhere, the number would join the sign in front.
        const std::string numbered = embedded::numberedSql(sql, dialect);
        require(sql.find("@?") != std::string::npos ||
                    embedded::markedSql(numbered, dialect).numbers == marked.numbers,
                "numbers that are spelt out stay");
    } catch (const embedded::Error& error) {
        seen = error.state();
    }
    fuzz::requireSame(seen, expected(reading, sql), reading.dbms);
    embedded::kindOfStatement(sql, dialect);
}

std::optional<std::string> converted(std::string text, const char* to, const char* from) {
    const iconv_t codec = iconv_open(to, from);
    std::string out(4 * text.size() + 4, '\0');
    char* source = text.data();
    char* target = out.data();
    size_t left = text.size();
    size_t room = out.size();
    const bool good = iconv(codec, &source, &left, &target, &room) == 0 && left == 0;
    iconv_close(codec);
    out.resize(out.size() - room);
    return good ? std::make_optional(out) : std::nullopt;
}

std::string_view bytesOf(const embedded::WideText& wide, size_t units) {
    return {reinterpret_cast<const char*>(wide.data()), units * sizeof(SQLWCHAR)};
}

void checkUtf16(const std::string& text) {
    const auto wide = converted(text, "UTF-16LE", "UTF-8");
    try {
        const embedded::WideText seen = embedded::wideText(text);
        require(wide.has_value() && seen.back() == 0, "a text that is not UTF-8 is refused");
        fuzz::requireSame(bytesOf(seen, seen.size() - 1), *wide, "the units");
        fuzz::requireSame(embedded::narrowText(seen.data(), seen.size() - 1), text, "and back");
    } catch (const embedded::Error&) {
        require(!wide.has_value(), "UTF-8 is taken");
    }
    embedded::WideText units(text.size() / 2);
    std::copy_n(text.data(), 2 * units.size(), reinterpret_cast<char*>(units.data()));
    const auto narrow = converted(text.substr(0, 2 * units.size()), "UTF-8", "UTF-16LE");
    const std::string readable = embedded::readableText(units.data(), units.size());
    require(fuzz::isStrict(readable), "messages are always readable");
    try {
        const std::string seen = embedded::narrowText(units.data(), units.size());
        require(narrow.has_value(), "a text that is not UTF-16 is refused");
        fuzz::requireSame(seen, *narrow, "the bytes");
        fuzz::requireSame(readable, *narrow, "the readable bytes");
    } catch (const embedded::Error&) {
        require(!narrow.has_value(), "UTF-16 is taken");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const Reading& reading = kReadings[input.byte() % std::size(kReadings)];
    // The regular expressions recurse for every byte.
    const std::string text(input.take(300));
    checkScanner(reading, text);
    checkUtf16(text);
    return 0;
}
