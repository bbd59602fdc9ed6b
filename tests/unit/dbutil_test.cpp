// What the fuzz target "sql" cannot see: limits of lengths, statements too large for it, and what
// lives on afterwards.
#include "dbutil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

namespace {

struct Normalized {
    std::string sql;
    int sqlType = -1;
    int paramCount = -1;
};

Normalized Normalize(const std::string& sql) {
    DynStr out;
    Normalized result;
    EXPECT_EQ(NormalizeSQL(sql.c_str(), out, &result.sqlType, &result.paramCount), 0);
    result.sql.assign(out.Deref(), static_cast<std::size_t>(out.Length()));
    return result;
}

std::string Repeat(const std::string& piece, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += piece;
    return text;
}

// Big statements on a small stack: nothing may recurse, lie on the stack or take quadratic time,
// which at these sizes would be hours.
TEST(NormalizeSqlTest, BigStatementsOnASmallStack) {
    const auto run = [](void*) -> void* {
        const std::string comments = "SELECT " + Repeat("/**/--\n", 200000) + "?";
        EXPECT_EQ(Normalize(comments).sql.size(), comments.size() + 2);
        EXPECT_EQ(Normalize("SELECT " + Repeat("?,", 1000000)).paramCount, 1000000);
        const std::string unknown = "SELECT " + Repeat("^\xC3\xA9", 500000);
        EXPECT_EQ(Normalize(unknown).sql, unknown);
        const std::string quoted =
            "SELECT '" + Repeat("it''s \\' \xF0\x9F\x98\x80 ?", 100000) + "'";
        EXPECT_EQ(Normalize(quoted).sql, quoted);
        const std::string open = "SELECT " + Repeat("[a] 'b' ", 100000) + "/* '";
        EXPECT_EQ(Normalize(open).sql, open);
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, run, nullptr), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

#if !defined(__SANITIZE_ADDRESS__)
// Runs `action`, which tells whether it noticed, in a process that can get no more big blocks.
template <typename Action>
void ExpectNoticed(Action action) {
    const auto run = [&] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_AS, &none);
        _exit(action() ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(NormalizeSqlTest, WithoutMemoryNothingIsShortenedOrMistaken) {
    const std::string big(64 << 20, 'a');
    const std::string words = "SELECT (" + big + ")?";
    const std::string marker = "SELECT [:" + big + "\\x ? ]";
    for (const std::string& sql : {words, marker}) {
        ExpectNoticed([&] {
            DynStr out;
            int type = 0;
            return NormalizeSQL(sql.c_str(), out, &type, nullptr) == VORDA_OUT_OF_MEMORY &&
                   out.Length() == 0;
        });
    }
}
#endif

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

}  // namespace
