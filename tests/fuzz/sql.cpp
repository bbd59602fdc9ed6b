// Tokenizer, normaliser and marker walk, which have to agree with each other; and with SQLite, or
// the number of markers has to tell.
#include "dbutil.h"

#include <sqlite3.h>

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

/// The text as SQLite reads it with NULL in place of every marker, without its blanks.
std::string expanded(sqlite3_stmt* statement) {
    const std::unique_ptr<char, decltype(&sqlite3_free)> text(sqlite3_expanded_sql(statement),
                                                              sqlite3_free);
    std::string all = text.get();
    std::erase_if(all, [](char c) { return std::strchr("\t\n\v\f\r ", c) != nullptr; });
    return all;
}

bool isAscii(char c) {
    return static_cast<signed char>(c) > 0;
}

/// No text may reach SQLite changed in what it reads as a string, a name or a comment, unless the
/// number of markers, which is warned about, is not that of the values that SQLite wants. What that
/// cannot show is one marker missed and another one invented, and a marker's name that goes on
/// behind its ASCII letters.
const char* checkMeaning(std::string_view sql, const Normalized& sent) {
    const Statement statement = compiled(std::string(sql));
    if (!statement) return "refused";
    const int markers = sqlite3_bind_parameter_count(statement.get());
    require(sent.markers == CountPlaceholders(fuzz::terminated(sql).data()), "markers counted");
    if (sent.markers != markers) return "warned";
    for (int i = 1; i <= markers; ++i) {
        const char* const name = sqlite3_bind_parameter_name(statement.get(), i);
        if (name != nullptr && !std::ranges::all_of(std::string_view(name), isAscii)) return "cut";
    }
    const Statement again = compiled(sent.text);
    for (int i = 1; i <= markers; ++i) {
        const char* const name = again ? sqlite3_bind_parameter_name(again.get(), i) : nullptr;
        if (name == nullptr || name != "@" + std::to_string(i)) return "one for another";
    }
    require(again != nullptr, "SQLite reads what it read before");
    requireSame(expanded(again.get()), expanded(statement.get()), "nothing but markers is changed");
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
    fuzz::tell("SQLite:", checkMeaning(sql, first));

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
