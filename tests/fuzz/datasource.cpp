// What the engine for data sources reads of statements in each dialect; and its UTF-16, beside
// iconv's. The first byte chooses the dialect; what follows is read whole, and line by line.
#include "core/error.h"
#include "fuzz.h"
#include "odbc/sqltext.h"
#include "odbc/utf16.h"

namespace {

using embedded::SqlScanner;
using fuzz::require;
using Kind = SqlScanner::Kind;

/// The tokens of `sql`, which lie one behind the other; answers how many are markers.
std::size_t checkTokens(std::string_view sql, const embedded::Dialect& dialect, bool told) {
    std::size_t markers = 0;
    std::size_t end = 0;
    std::ostringstream kinds;
    SqlScanner scanner(sql, dialect.syntax);
    for (auto token = scanner.next(); token.kind != Kind::End; token = scanner.next()) {
        require(!token.text.empty() && token.text.data() >= sql.data() + end, "tokens advance");
        end = scanner.position();
        require(token.text.data() + token.text.size() == sql.data() + end, "up to the position");
        if (token.kind == Kind::Marker) ++markers;
        kinds << static_cast<int>(token.kind) << ' ' << token.text << "  ";
    }
    if (told) fuzz::tell(kinds.str());
    return markers;
}

void checkScanner(const std::string& sql, const embedded::Dialect& dialect, bool told) {
    // No terminator: the length alone must hold the scanner back.
    const std::vector<char> exact(sql.begin(), sql.end());
    checkTokens({exact.data(), exact.size()}, dialect, told);
    const embedded::StatementText text(sql, dialect);
    const auto kind = static_cast<int>(text.kind());
    try {
        const embedded::MarkedSql marked = text.marked();
        std::ostringstream numbers;
        for (const int number : marked.numbers) {
            numbers << number << ' ';
            require(number >= 1 && number <= marked.parameters, "the number of a parameter");
        }
        fuzz::tell(kind, marked.text, "with", numbers.str());
        // In "@?", which is SQL nowhere, the number would join the sign in front.
        if (sql.find("@?") != std::string::npos) return;
        require(checkTokens(marked.text, dialect, false) == marked.numbers.size(),
                "as many markers as numbers");
        const std::string numbered = text.numbered();
        require(embedded::StatementText(numbered, dialect).marked().numbers == marked.numbers,
                "numbers that are spelt out stay");
    } catch (const embedded::Error& error) {
        fuzz::tell(kind, error.state());
    }
}

void checkUtf16(const std::string& text) {
    const auto wide = fuzz::converted(text, "UTF-16LE", "UTF-8");
    try {
        const embedded::WideText seen = embedded::wideText(text);
        require(wide.has_value() && seen.back() == 0, "a text that is not UTF-8 is refused");
        fuzz::requireSame({reinterpret_cast<const char*>(seen.data()), 2 * seen.size() - 2}, *wide,
                          "the units");
        fuzz::requireSame(embedded::narrowText(seen.data(), seen.size() - 1), text, "and back");
    } catch (const embedded::Error&) {
        require(!wide.has_value(), "UTF-8 is taken");
    }
    embedded::WideText units(text.size() / 2);
    std::copy_n(text.data(), 2 * units.size(), reinterpret_cast<char*>(units.data()));
    const auto narrow =
        fuzz::converted(std::string_view(text).substr(0, 2 * units.size()), "UTF-8", "UTF-16LE");
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
    constexpr const char* kServers[] = {"?", "PostgreSQL", "MariaDB", "SQLite",
                                        "Microsoft SQL Server"};
    fuzz::Input input(data, size);
    const unsigned server = input.byte() + (256U - '0');
    const embedded::Dialect& dialect = embedded::dialectOf(kServers[server % 256U % 5U]);
    fuzz::Input lines = input;
    const std::string text(input.rest());
    checkScanner(text, dialect, true);
    checkUtf16(text);
    while (!lines.empty()) {
        const std::string line(lines.line());
        if (line.size() == text.size()) break;
        checkScanner(line, dialect, false);
        checkUtf16(line);
    }
    return 0;
}
