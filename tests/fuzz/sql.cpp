// Tokenizer, normaliser and marker walk, which have to agree with each other.
#include "dbutil.h"

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
        if (token == &NULL_TOKEN || token->Equals(NONE_TOKEN)) {
            fuzz::tell("none, up to", after - exact.data());
        } else {
            fuzz::tell(static_cast<int>(token->tkKind), token->bWasQuoted != 0, token->Text(),
                       "up to", after - exact.data());
        }
    }
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view sql = fuzz::Input(data, size).rest();
    sql = sql.substr(0, sql.find('\0'));
    checkTokens(sql);

    const std::vector<char> text = fuzz::terminated(sql);
    const Normalized first = normalized(text.data());
    fuzz::tell(first.type, first.text);
    require(first.type >= 0 && first.type <= 6, "the kind of statement");
    std::size_t place = 0;
    MarkerWalk walk(text.data());
    for (int i = 1; i <= first.markers; ++i) {
        const SQL_TOKEN* const marker = walk.NextMarker();
        require(marker != nullptr, "the walk finds every marker");
        fuzz::tell("marker", marker->Text());
        place = first.text.find("@" + std::to_string(i) + " ", place);
        require(place != std::string::npos, "each marker has its number, in order");
    }
    require(walk.NextMarker() == nullptr, "and no more");
    require(first.markers > 0 || sql.ends_with(first.text), "without markers nothing changes");
    // A marker within quotes loses the quote behind it, and one that stands against a name becomes
    // part of it: p? is p@1.
    if (first.type < 5 && sql.find_first_of("\"'[`") == sql.npos) {
        const Normalized again = normalized(first.text.c_str());
        require(again.markers <= first.markers, "no marker is made");
        if (again.markers == first.markers) {
            requireSame(again.text, first.text, "it is in its form then");
        }
    }

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
