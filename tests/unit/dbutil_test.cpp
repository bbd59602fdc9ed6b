// What the fuzz target "sql" cannot see: limits of lengths, statements too large for it, and what
// lives on afterwards.
#include "dbutil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <new>
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

// A text of more than 2 GB made of one megabyte mapped over and over: it cannot be handled, and
// must not be handled in part.
TEST(NormalizeSqlTest, TooLongIsNotShortened) {
    constexpr std::size_t kPart = 1 << 20;
    constexpr std::size_t kParts = 2049;
    const int file = memfd_create("statement", 0);
    ASSERT_GE(file, 0);
    const std::string part(kPart, 'a');
    ASSERT_EQ(write(file, part.data(), kPart), static_cast<ssize_t>(kPart));
    void* const reserved = mmap(nullptr, (kParts + 1) * kPart, PROT_READ,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(reserved, MAP_FAILED);
    char* const text = static_cast<char*>(reserved);
    for (std::size_t i = 0; i < kParts; ++i) {
        ASSERT_NE(mmap(text + i * kPart, kPart, PROT_READ, MAP_SHARED | MAP_FIXED, file, 0),
                  MAP_FAILED);
    }
    DynStr out;
    const char* verb = "";
    out.Set("kept");
    int type = 7, count = 7;
    EXPECT_EQ(NormalizeSQL(text, out, &type, &count), VORDA_OUT_OF_MEMORY);
    EXPECT_TRUE(type == SQLTYPE_OTHER && count == 0);
    EXPECT_EQ(NormalizeSQL(text, out, &verb), VORDA_OUT_OF_MEMORY);
    EXPECT_EQ(verb, nullptr);
    EXPECT_STREQ(out.Deref(), "kept");
    munmap(reserved, (kParts + 1) * kPart);
    close(file);
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
    SqlTokenizer tokenizer;
    tokenizer.InitWithUTF8(marker.c_str());
    tokenizer.NextToken();
    const SQL_TOKEN* const name = tokenizer.NextToken();
    ExpectNoticed([&] { return name->Clone() == nullptr; });
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

TEST(SqlTypeTest, Classes) {
    for (int type = -1; type <= 8; ++type) {
        const bool procedure = type == 5 || type == 6;
        EXPECT_EQ(IsStoredProcedure(type), procedure) << type;
        EXPECT_EQ(IsStoredProceduresqlType(type), procedure) << type;
        EXPECT_EQ(SQLTypeHasResultSet(type), procedure || type == 1) << type;
    }
}

}  // namespace
