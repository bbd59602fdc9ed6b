#include "include/sqltokenizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

struct Case {
    const char* sql;
    const char* tokens;
};

void Check(const std::vector<Case>& cases) {
    for (const auto& [sql, tokens] : cases) EXPECT_EQ(Tokenize(sql), tokens) << sql;
}

TEST(SqlTokenizerTest, Words) {
    Check({
        {"", ""},
        {" \t\v\f\r\n", ""},
        {"SELECT Select select SELECTED", "k:SELECT k:Select i:select i:SELECTED"},
        {"True null NULL AND", "b:True i:null n:NULL i:AND"},
        {"@p1 :p1 a@b x$# $1 _", "p:@p1 i::p1 i:a@b i:x$# i:$1 i:_"},
        {"t.col", "i:t .:. i:col"},
        {"a;{?}", "i:a i: {:{ p:? }:}"},
        {"(*)", "(:( i:* ):)"},
        {"#temp x#2020-01", "s:#temp i:x#2020 #:-01"},
        {"#2020-01-01#", "s:#2020 #:-01 #:-01 s:#"},
    });
}

TEST(SqlTokenizerTest, QuotedText) {
    Check({
        {"N'x' Name", "s:x i:Name"},
        {"'it''s' ''", "s:it's s:"},
        {"'a'''b", "s:a' i:b"},
        {"''''''x", "s:'' i:x"},
        {"'abc''", "s:abc'"},
        {"\"a\"'b'", "i:a s:b"},
        {"'\\n\\\\\\'x'y", "s:n\\'x i:y"},
        {"'a\\''", "s:a'"},
        {"[Order Details]", "i:Order Details"},
        {"[a]]", "i:a !40104"},
        {"`a\\`b` \"c\\\"d\"", "i:a`b i:c\"d"},
        {"\"a\"\"b\"", "i:a i:b"},
        {"'abc", "!40102"},
        {"'abc\\'", "!40102"},
        {"x [", "i:x !40102"},
    });
}

TEST(SqlTokenizerTest, Numbers) {
    Check({
        {"a-1", "i:a #:-1"},
        {"1,2)3;4=5", "#:1 o:, #:2 ):) #:3 i: #:4 o:= #:5"},
        {"1.5e+3 1E5-3", "#:1.5e+3 #:1E5-3"},
        {"1x+3", "#:1x o:+ #:3"},
        {"1xe+3", "#:1xe o:+ #:3"},
        {"2020-01-01 0x1F", "#:2020 #:-01 #:-01 #:0x1F"},
        {".5 .05e1 .25.1 .5e", "#:0.5 #:0.5 #:0.25 #:0.5"},
        {".1e-999", "#:0"},
        {".1e999", "!435"},
    });
}

TEST(SqlTokenizerTest, OperatorsAndComments) {
    Check({
        {"a<=b", "i:a o:<= i:b"},
        {"a<=>b", "i:a o:<=> i:b"},
        {"a<=", "i:a !40101"},
        {"!=<>>===", "o:!= o:<> o:>= o:=="},
        {"=<>!%+/-,", "o:= o:<> o:! o:% o:+ o:/ o:- o:,"},
        {"x -- note\ny", "i:x i:y"},
        {"x// a\r\ry--\r\nz", "i:x i:y i:z"},
        {"x /* a /* b */ y", "i:x i:y"},
        {"x /*/ y", "i:x i:"},
        {"x --", "i:x i:"},
    });
}

// Outside quotes other characters start no token unless the low byte of their UTF-16 unit is an
// operator's; inside they are kept as they are.
TEST(SqlTokenizerTest, OtherCharacters) {
    Check({
        {"'\xF0\x9F\x98\x80'", "s:\xF0\x9F\x98\x80"},
        {"'\xFF\xE2\x82'x", "s:\xFF\xE2\x82 i:x"},
        {"a\xC4\xBD?", "i:a o:\xC4\xBD p:?"},             // U+013D
        {"\xF0\x9F\x98\x80x", "o:\xF0\x9F\x98\x80 i:x"},  // U+D83D first
        {"\xC3\xA9", "!40104"},
        {"\xC0\xBD", "!40104"},      // an overlong "=" is no "="
        {"\xED\xA0\xBD", "!40104"},  // nor has an encoded surrogate a low byte
        {"\xC2?", "!40104"},
    });
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
