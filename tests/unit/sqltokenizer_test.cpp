// What the fuzz target "sql" cannot see: how failures are told, and what lives on afterwards.
#include "include/sqltokenizer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// All tokens up to the end or the first failure, which shows as "!" and its code. A token shows as
// a letter for its kind, ":" and its text: identifier, keyword, parameter, string, number (#),
// bool, operator, null, and the single characters.
std::string Tokenize(const char* sql) {
    constexpr char kKinds[] = "ikps?#bo?().n{}";
    SqlTokenizer tokenizer;
    EXPECT_EQ(tokenizer.InitWithUTF8(sql), VORDA_OK);
    std::string tokens;
    while (true) {
        const SQL_TOKEN* token = tokenizer.NextToken();
        if (token == &NONE_TOKEN) return tokens;
        if (!tokens.empty()) tokens += ' ';
        if (tokenizer.LastErrorCode() != VORDA_OK) {
            return tokens + "!" + std::to_string(tokenizer.LastErrorCode());
        }
        tokens.append({kKinds[static_cast<std::size_t>(token->tkKind)], ':'}).append(token->Text());
    }
}

TEST(SqlTokenizerTest, KindsAndTexts) {
    const struct {
        const char* sql;
        const char* tokens;
    } cases[] = {
        {"SELECT a = @p, 'x', 1.5e+3 -- note", "k:SELECT i:a o:= p:@p o:, s:x o:, #:1.5e+3 i:"},
        {"a;{?}", "i:a i: {:{ p:? }:}"},
        // What begins with the point is spelt anew.
        {".5 .05e1 .25.1 .5e", "#:0.5 #:0.5 #:0.25 #:0.5"},
        {".1e-999", "#:0"},
        {".1e999", "!435"},
        {"[a]]", "i:a !40104"},
        {"'abc\\'", "!40102"},
        {"x [", "i:x !40102"},
        {"a<=", "i:a !40101"},
        {"\xC3\xA9", "!40104"},
    };
    for (const auto& [sql, tokens] : cases) EXPECT_EQ(Tokenize(sql), tokens) << sql;
}

TEST(SqlTokenizerTest, FailuresAndResults) {
    SqlTokenizer tokenizer;
    EXPECT_EQ(tokenizer.LastToken().tkKind, TK_NULL);
    tokenizer.InitWithUTF8("a ^ b -- c\n ^ NULL --");
    EXPECT_EQ(tokenizer.NextToken(), &tokenizer.LastToken());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(tokenizer.NextToken(), &NULL_TOKEN);
        EXPECT_EQ(tokenizer.LastErrorCode(), VORDA_SQL_UNKNOWN_CHARACTER);
        EXPECT_EQ(*tokenizer.Position(), '^');
    }
    tokenizer.SkipCharacter();
    EXPECT_EQ(tokenizer.NextToken()->Text(), "b");
    // After a comment a failure shows only in the code, and the end is the tokenizer's own token.
    EXPECT_EQ(tokenizer.NextToken(), &tokenizer.LastToken());
    EXPECT_TRUE(tokenizer.LastToken().Equals(NONE_TOKEN));
    EXPECT_EQ(tokenizer.NextToken(), &NULL_TOKEN);
    tokenizer.SkipCharacter();
    EXPECT_EQ(tokenizer.NextToken(), &tokenizer.LastToken());
    EXPECT_TRUE(tokenizer.LastToken().Equals(NULL_TOKEN));
    EXPECT_EQ(tokenizer.NextToken(), &tokenizer.LastToken());
    EXPECT_TRUE(tokenizer.IsEOF());
    EXPECT_EQ(tokenizer.NextToken(), &NONE_TOKEN);

    // A quoted name that breaks off after a comment must not look like a marker.
    tokenizer.InitWithUTF8("/**/[:x\\y");
    EXPECT_TRUE(tokenizer.NextToken()->Equals(NONE_TOKEN));
    EXPECT_EQ(tokenizer.LastErrorCode(), VORDA_SQL_UNCLOSED_QUOTE);
}

TEST(SqlTokenizerTest, QuotingIsRemembered) {
    SqlTokenizer tokenizer;
    tokenizer.InitWithUTF8("[a] 'b' * c");
    const int flags[][2] = {{1, 1}, {0, 1}, {1, 0}, {0, 0}};  // of the token, of the tokenizer
    for (const auto& [token, text] : flags) {
        EXPECT_EQ(tokenizer.NextToken()->bWasQuoted, token);
        EXPECT_EQ(tokenizer.LastTokenWasQuoted(), text);
    }
}

TEST(SqlTokenizerTest, ReadsNoFurtherThanTold) {
    const std::string sql = "ab'c";
    SqlTokenizer tokenizer;
    tokenizer.InitWithUTF8(sql.data(), 2);
    EXPECT_EQ(tokenizer.NextToken()->Text(), "ab");
    EXPECT_TRUE(tokenizer.IsEOF());
    tokenizer.InitWithUTF8("a\0b", 3);
    tokenizer.NextToken();
    EXPECT_TRUE(tokenizer.IsEOF());
    tokenizer.InitWithUTF8("\xF0\x9F\x98\x80", 2);
    tokenizer.SkipCharacter();
    tokenizer.SkipCharacter();
    EXPECT_TRUE(tokenizer.IsEOF());
    tokenizer.InitWithUTF8("#run x");
    tokenizer.NextToken();
    EXPECT_STREQ(tokenizer.Position(), "x");  // the blank went with the run
    tokenizer.InitWithUTF8(nullptr);
    EXPECT_EQ(tokenizer.NextToken(), &NONE_TOKEN);
}

TEST(SqlTokenizerTest, ClonesAreIndependent) {
    const std::string name(300, 'x');
    const std::string sql = "[" + name + "] y";
    SqlTokenizer tokenizer;
    tokenizer.InitWithUTF8(sql.c_str());
    const auto clone = tokenizer.NextToken()->Clone();
    tokenizer.NextToken();
    EXPECT_EQ(clone->Text(), name);
    EXPECT_EQ(clone->bWasQuoted, 1);
}

}  // namespace
