// Tokenizer, normaliser and marker walk, which have to agree with each other; and with SQLite, or
// the number of markers has to tell.
#include "dbutil.h"

#include <sqlite3.h>

#include <charconv>
#include <cstring>
#include <memory>

#include "fuzz.h"

namespace {

using fuzz::require;
using fuzz::requireSame;

void checkTokens(std::string_view sql) {
    // No terminator: the length alone must hold the tokenizer back.
    const std::vector<char> exact(sql.begin(), sql.end());
    SqlTokenizer tokenizer;
    tokenizer.InitWithUTF8(exact.data(), exact.size());
    while (!tokenizer.IsEOF()) {
        const char* const before = tokenizer.Position();
        const SQL_TOKEN* const token = tokenizer.NextToken();
        if (tokenizer.Position() == before) tokenizer.SkipCharacter();
        const char* const after = tokenizer.Position();
        require(after > before && after <= exact.data() + exact.size(), "the tokenizer advances");
        // Failures and the end have tokens of their own, but not behind a comment.
        const char* const whose = token == &NULL_TOKEN              ? "failed"
                                  : token == &NONE_TOKEN            ? "end"
                                  : token == &tokenizer.LastToken() ? ""
                                                                    : "other";
        fuzz::tell(static_cast<int>(token->tkKind), token->bWasQuoted != 0, token->Text(), "up to",
                   after - exact.data(), whose, tokenizer.LastTokenWasQuoted() != 0,
                   tokenizer.LastErrorCode());
    }
    require(tokenizer.NextToken() == &NONE_TOKEN, "nothing behind the end");
}

struct Normalized {
    std::string text;
    int type = -1;
    int markers = -1;
};
Normalized normalized(const char* sql) {
    Normalized result;
    DynStr text;
    text.Set("before ");
    NormalizeSQL(sql, text, &result.type, &result.markers);
    const std::string_view whole(text.Deref(), static_cast<std::size_t>(text.Length()));
    require(whole.starts_with("before "), "what was there stays");
    result.text = whole.substr(7);
    return result;
}

// --- SQLite's opinion ---

struct Close {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Close>;

/// The compiled statement; null for what SQLite refuses and for more than one.
Statement compiled(const std::string& sql) {
    static sqlite3* const db = [] {
        sqlite3* opened = nullptr;
        sqlite3_open(":memory:", &opened);
        sqlite3_exec(opened, "CREATE TABLE t (a, b, id, n)", nullptr, nullptr, nullptr);
        return opened;
    }();
    sqlite3_stmt* statement = nullptr;
    const char* tail = "";
    sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, &tail);
    Statement result(statement);
    return *tail == '\0' ? std::move(result) : nullptr;
}

/// The markers of a compiled statement, where they stand in its text: SQLite puts numbers in their
/// places. Nothing where that text cannot be told from these.
std::optional<std::vector<std::string_view>> markersOf(sqlite3_stmt* statement,
                                                       std::string_view sql) {
    constexpr std::string_view kValue = "70000000000000";
    constexpr std::size_t kDigits = 19;
    if (sql.find(kValue) != sql.npos) return std::nullopt;
    for (int i = sqlite3_bind_parameter_count(statement); i > 0; --i) {
        sqlite3_bind_int64(statement, i, 7'000'000'000'000'000'000 + i);
    }
    const std::unique_ptr<char, decltype(&sqlite3_free)> text(sqlite3_expanded_sql(statement),
                                                              sqlite3_free);
    std::vector<std::string_view> markers;
    std::size_t at = 0;
    for (std::string_view rest = text.get(); !rest.empty();) {
        if (!rest.starts_with(kValue)) {
            require(at < sql.size() && rest.front() == sql[at], "the text between the markers");
            rest.remove_prefix(1);
            ++at;
            continue;
        }
        int index = 0;
        std::from_chars(rest.data() + kValue.size(), rest.data() + kDigits, index);
        const char* const name = sqlite3_bind_parameter_name(statement, index);
        markers.push_back(sql.substr(at, name != nullptr ? std::strlen(name) : 1));
        // "?1" and "?01" are the same one.
        if (markers.back() != (name != nullptr ? name : "?")) return std::nullopt;
        rest.remove_prefix(kDigits);
        at += markers.back().size();
    }
    return markers;
}

/// No text may reach SQLite changed in what it reads as a string, a name or a comment, unless the
/// number of markers, which is warned about, is not that of the values that SQLite wants. What that
/// cannot show is one marker missed and another one invented.
const char* checkMeaning(std::string_view sql) {
    const Statement statement = compiled(std::string(sql));
    if (!statement) return "refused";
    const std::vector<char> text = fuzz::terminated(sql);
    if (CountPlaceholders(text.data()) != sqlite3_bind_parameter_count(statement.get())) {
        return "warned";
    }
    const std::string sent = normalized(text.data()).text;
    const auto wanted = markersOf(statement.get(), sql);
    if (!wanted) return "unclear";
    constexpr std::string_view kBlanks = "\t\n\v\f\r ";
    const auto behind = [&](std::size_t at) {
        return std::min(sql.find_first_not_of(kBlanks, at), sql.size());
    };
    std::string expected;
    std::size_t done = behind(0);
    MarkerWalk walk(text.data());
    int number = 0;
    for (const std::string_view marker : *wanted) {
        const auto place = static_cast<std::size_t>(marker.data() - sql.data());
        const SQL_TOKEN* const found = walk.NextMarker();
        if (found == nullptr || walk.Place() != text.data() + place) return "one for another";
        // Names are of ASCII letters and digits.
        if (found->Text() != marker) return "another name";
        expected.append(sql.substr(done, place - done))
            .append("@" + std::to_string(++number) + " ");
        done = behind(place + marker.size());
    }
    expected += sql.substr(done);
    requireSame(sent, expected, "nothing but markers is changed");
    const Statement again = compiled(sent);
    require(again != nullptr && sqlite3_bind_parameter_count(again.get()) == number,
            "SQLite reads the markers as such");
    return "same";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view sql = fuzz::Input(data, size).rest();
    sql = sql.substr(0, sql.find('\0'));
    checkTokens(sql);

    const std::vector<char> text = fuzz::terminated(sql);
    const Normalized first = normalized(text.data());
    fuzz::tell(first.type, first.text);
    require(first.type >= 0 && first.type <= 6, "the kind of statement");
    MarkerWalk walk(text.data());
    for (int i = 1; i <= first.markers; ++i) {
        const SQL_TOKEN* const marker = walk.NextMarker();
        require(marker != nullptr, "the walk finds every marker");
        fuzz::tell("marker", marker->Text());
    }
    require(walk.NextMarker() == nullptr, "and no more");
    require(first.markers > 0 || sql.ends_with(first.text), "without markers nothing changes");
    fuzz::tell("SQLite:", checkMeaning(sql));

    constexpr const char* kVerbs[] = {nullptr, "SELECT", "UPDATE", "INSERT", "DELETE"};
    DynStr unchanged;
    unchanged.Set("before");
    const char* verb = "";
    const bool simple = first.type >= 1 && first.type <= 4;
    require(NormalizeSQL(text.data(), unchanged, &verb) == (simple ? 0 : -1), "the light form");
    requireSame(unchanged.Deref(), simple ? sql : "before", "the light form's text");
    requireSame(verb != nullptr ? verb : "", simple ? kVerbs[first.type] : "", "its verb");
    return 0;
}
