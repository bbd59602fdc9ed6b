// What the fuzz target "sql" cannot see: limits of lengths, and what lives on afterwards.
#include "include/sqltokenizer.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(SqlTokenizerTest, ReadsNoFurtherThanTold) {
    const std::string sql = "ab'c";
    SqlTokenizer tokenizer;
    EXPECT_EQ(tokenizer.LastToken().tkKind, TK_NULL);
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
    EXPECT_TRUE(clone->Equals(TK_IDENTIFIER, name));
    EXPECT_FALSE(clone->Equals(tokenizer.LastToken()));
    EXPECT_EQ(clone->bWasQuoted, 1);
}

}  // namespace
