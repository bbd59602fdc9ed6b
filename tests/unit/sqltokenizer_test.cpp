#include "include/sqltokenizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Token = std::pair<TOKEN_KIND, std::string>;
using Tokens = std::vector<Token>;

// All tokens up to the end or the first failure, which shows as {TK_COMMENT, its code}.
Tokens Tokenize(const std::string& sql) {
    SqlTokenizer tokenizer;
    EXPECT_EQ(tokenizer.InitWithUTF8(sql.c_str()), VORDA_OK);
    Tokens tokens;
    for (;;) {
        const SQL_TOKEN* token = tokenizer.NextToken();
        if (tokenizer.LastErrorCode() != VORDA_OK) {
            tokens.emplace_back(TK_COMMENT, std::to_string(tokenizer.LastErrorCode()));
            return tokens;
        }
        if (token == &NONE_TOKEN) return tokens;
        tokens.emplace_back(token->tkKind, token->Text());
    }
}

const Token kNothing = {TK_IDENTIFIER, ""};

struct Case {
    const char* sql;
    Tokens tokens;
};

void Check(const std::vector<Case>& cases) {
    for (const Case& c : cases) EXPECT_EQ(Tokenize(c.sql), c.tokens) << c.sql;
}

TEST(SqlTokenizerTest, Words) {
    Check({
        {"", {}},
        {" \t\v\f\r\n", {}},
        {"SELECT Select select",
         {{TK_KEYWORD, "SELECT"}, {TK_KEYWORD, "Select"}, {TK_IDENTIFIER, "select"}}},
        {"True null NULL AND",
         {{TK_BOOL, "True"}, {TK_IDENTIFIER, "null"}, {TK_NULL, "NULL"}, {TK_IDENTIFIER, "AND"}}},
        {"SELECTED FROMx", {{TK_IDENTIFIER, "SELECTED"}, {TK_IDENTIFIER, "FROMx"}}},
        {"@p1 :p1 a@b x$# $1 _",
         {{TK_PARAMETER, "@p1"},
          {TK_IDENTIFIER, ":p1"},
          {TK_IDENTIFIER, "a@b"},
          {TK_IDENTIFIER, "x$#"},
          {TK_IDENTIFIER, "$1"},
          {TK_IDENTIFIER, "_"}}},
        {"t.col", {{TK_IDENTIFIER, "t"}, {TK_DOT, "."}, {TK_IDENTIFIER, "col"}}},
        {"a;{?}",
         {{TK_IDENTIFIER, "a"},
          kNothing,
          {TK_ESCINITIATOR, "{"},
          {TK_PARAMETER, "?"},
          {TK_ESCTERMINATOR, "}"}}},
        {"(*)", {{TK_OPEN, "("}, {TK_IDENTIFIER, "*"}, {TK_CLOSE, ")"}}},
        {"#temp x#2020-01", {{TK_STR, "#temp"}, {TK_IDENTIFIER, "x#2020"}, {TK_NUMBER, "-01"}}},
        {"#2020-01-01#",
         {{TK_STR, "#2020"}, {TK_NUMBER, "-01"}, {TK_NUMBER, "-01"}, {TK_STR, "#"}}},
    });
}

TEST(SqlTokenizerTest, QuotedText) {
    Check({
        {"N'x' Name", {{TK_STR, "x"}, {TK_IDENTIFIER, "Name"}}},
        {"'it''s' ''", {{TK_STR, "it's"}, {TK_STR, ""}}},
        {"'a'''b", {{TK_STR, "a'"}, {TK_IDENTIFIER, "b"}}},
        {"''''''x", {{TK_STR, "''"}, {TK_IDENTIFIER, "x"}}},
        {"'abc''", {{TK_STR, "abc'"}}},
        {"\"a\"'b'", {{TK_IDENTIFIER, "a"}, {TK_STR, "b"}}},
        {"'\\n\\\\\\'x'y", {{TK_STR, "n\\'x"}, {TK_IDENTIFIER, "y"}}},
        {"'a\\''", {{TK_STR, "a'"}}},
        {"[Order Details]", {{TK_IDENTIFIER, "Order Details"}}},
        {"[a]]", {{TK_IDENTIFIER, "a"}, {TK_COMMENT, "40104"}}},
        {"`a\\`b` \"c\\\"d\"", {{TK_IDENTIFIER, "a`b"}, {TK_IDENTIFIER, "c\"d"}}},
        {"\"a\"\"b\"", {{TK_IDENTIFIER, "a"}, {TK_IDENTIFIER, "b"}}},
        {"'abc", {{TK_COMMENT, "40102"}}},
        {"'abc\\'", {{TK_COMMENT, "40102"}}},
        {"x [", {{TK_IDENTIFIER, "x"}, {TK_COMMENT, "40102"}}},
    });
}

TEST(SqlTokenizerTest, Numbers) {
    Check({
        {"a-1", {{TK_IDENTIFIER, "a"}, {TK_NUMBER, "-1"}}},
        {"1,2)3;4=5",
         {{TK_NUMBER, "1"},
          {TK_OPERATOR, ","},
          {TK_NUMBER, "2"},
          {TK_CLOSE, ")"},
          {TK_NUMBER, "3"},
          kNothing,
          {TK_NUMBER, "4"},
          {TK_OPERATOR, "="},
          {TK_NUMBER, "5"}}},
        {"1.5e+3 1E5-3", {{TK_NUMBER, "1.5e+3"}, {TK_NUMBER, "1E5-3"}}},
        {"1x+3", {{TK_NUMBER, "1x"}, {TK_OPERATOR, "+"}, {TK_NUMBER, "3"}}},
        {"1xe+3", {{TK_NUMBER, "1xe"}, {TK_OPERATOR, "+"}, {TK_NUMBER, "3"}}},
        {"2020-01-01", {{TK_NUMBER, "2020"}, {TK_NUMBER, "-01"}, {TK_NUMBER, "-01"}}},
        {"0x1F", {{TK_NUMBER, "0x1F"}}},
        {".5 .05e1 .25.1 .5e",
         {{TK_NUMBER, "0.5"}, {TK_NUMBER, "0.5"}, {TK_NUMBER, "0.25"}, {TK_NUMBER, "0.5"}}},
        {".1e-999", {{TK_NUMBER, "0"}}},
        {".1e999", {{TK_COMMENT, "435"}}},
    });
}

TEST(SqlTokenizerTest, OperatorsAndComments) {
    Check({
        {"a<=b", {{TK_IDENTIFIER, "a"}, {TK_OPERATOR, "<="}, {TK_IDENTIFIER, "b"}}},
        {"a<=>b", {{TK_IDENTIFIER, "a"}, {TK_OPERATOR, "<=>"}, {TK_IDENTIFIER, "b"}}},
        {"a<=", {{TK_IDENTIFIER, "a"}, {TK_COMMENT, "40101"}}},
        {"!=<>>===",
         {{TK_OPERATOR, "!="}, {TK_OPERATOR, "<>"}, {TK_OPERATOR, ">="}, {TK_OPERATOR, "=="}}},
        {"=<>!%+/-,",
         {{TK_OPERATOR, "="},
          {TK_OPERATOR, "<>"},
          {TK_OPERATOR, "!"},
          {TK_OPERATOR, "%"},
          {TK_OPERATOR, "+"},
          {TK_OPERATOR, "/"},
          {TK_OPERATOR, "-"},
          {TK_OPERATOR, ","}}},
        {"x -- note\ny", {{TK_IDENTIFIER, "x"}, {TK_IDENTIFIER, "y"}}},
        {"x// a\r\ry--\r\nz", {{TK_IDENTIFIER, "x"}, {TK_IDENTIFIER, "y"}, {TK_IDENTIFIER, "z"}}},
        {"x /* a /* b */ y", {{TK_IDENTIFIER, "x"}, {TK_IDENTIFIER, "y"}}},
        {"x /*/ y", {{TK_IDENTIFIER, "x"}, kNothing}},
        {"x --", {{TK_IDENTIFIER, "x"}, kNothing}},
    });
}

// Outside quotes other characters start no token unless the low byte of their UTF-16 unit is an
// operator's; inside they are kept as they are.
TEST(SqlTokenizerTest, OtherCharacters) {
    Check({
        {"'\xF0\x9F\x98\x80'", {{TK_STR, "\xF0\x9F\x98\x80"}}},
        {"'\xFF\xE2\x82'x", {{TK_STR, "\xFF\xE2\x82"}, {TK_IDENTIFIER, "x"}}},
        {"a\xC4\xBD?",
         {{TK_IDENTIFIER, "a"}, {TK_OPERATOR, "\xC4\xBD"}, {TK_PARAMETER, "?"}}},  // U+013D
        {"\xF0\x9F\x98\x80x",
         {{TK_OPERATOR, "\xF0\x9F\x98\x80"}, {TK_IDENTIFIER, "x"}}},  // U+D83D first
        {"\xC3\xA9", {{TK_COMMENT, "40104"}}},
        {"\xC0\xBD", {{TK_COMMENT, "40104"}}},      // an overlong "=" is no "="
        {"\xED\xA0\xBD", {{TK_COMMENT, "40104"}}},  // nor has an encoded surrogate a low byte
        {"\xC2?", {{TK_COMMENT, "40104"}}},
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
