#include "dbutil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <new>
#include <random>
#include <string>
#include <vector>

namespace {

struct Normalized {
    std::string sql;
    int sqlType;
    int paramCount;
    bool operator==(const Normalized&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Normalized& n) {
    return out << '"' << n.sql << "\" type " << n.sqlType << " count " << n.paramCount;
}

Normalized Normalize(const std::string& sql) {
    DynStr out;
    Normalized result{{}, -1, -1};
    EXPECT_EQ(NormalizeSQL(sql.c_str(), out, &result.sqlType, &result.paramCount), 0);
    result.sql.assign(out.Deref(), static_cast<std::size_t>(out.Length()));
    return result;
}

TEST(NormalizeSqlTest, RewritesMarkers) {
    const struct {
        const char* sql;
        Normalized result;
    } cases[] = {
        {"SELECT * FROM t WHERE a = ? AND b = ?",
         {"SELECT * FROM t WHERE a = @1 AND b = @2 ", 1, 2}},
        {"update t set x=:x where id=@id", {"update t set x=@1 where id=@2 ", 2, 2}},
        {"INSERT INTO t VALUES (?, ?)", {"INSERT INTO t VALUES (@1 , @2 )", 3, 2}},
        {"EXEC p @a = ?, @b = ?", {"EXEC p @a = @1 , @b = @2 ", 6, 2}},
        {"Execute p ?, ?", {"Execute p ?, ?", 5, 0}},
        {"EXEC p @x = /* c */ @y", {"EXEC p @x = /* c */ @1 ", 6, 1}},
        {"EXEC p @x == ?, @y [=] ?", {"EXEC p @x == ?, @y [=] ?", 6, 0}},
        {"EXEC p = ? ?", {"EXEC p = @1 ?", 6, 1}},
        {"EXEC p = ^ ?", {"EXEC p = ^ ?", 6, 0}},
        {"SELECT '?' FROM t -- ?", {"SELECT '?' FROM t -- ?", 1, 0}},
        {"SELECT \"?\", [?], `?` /* ? */", {"SELECT \"?\", [?], `?` /* ? */", 1, 0}},
        {"  SELECT 1  ", {"SELECT 1  ", 1, 0}},
        {"SELECT ?   FROM t", {"SELECT @1 FROM t", 1, 1}},
        {"SELECT ?\n--x\n,?", {"SELECT @1 --x\n,@2 ", 1, 2}},
        {"SELECT [:x] FROM t", {"SELECT [:@1 FROM t", 1, 1}},
        {"SELECT [:\\x]", {"SELECT [:\\@1 ", 1, 1}},
        {"", {"", 0, 0}},
        {"?", {"?", 0, 0}},
        {"{call p(?)}", {"{call p(@1 )}", 0, 1}},
        {"'SELECT' ?", {"'SELECT' @1 ", 0, 1}},
        {"[SELECT] ?", {"[SELECT] @1 ", 0, 1}},
        {"SELECT ^^ ? ^", {"SELECT ^^ @1 ^", 1, 1}},
        {"SELECT '\xF0\x9F\x98\x80', ?, '\xF0\x9F\x98\x80 ?'",
         {"SELECT '\xF0\x9F\x98\x80', @1 , '\xF0\x9F\x98\x80 ?'", 1, 1}},
        {"SELECT \xF3\xB0\x80\x80, ?, '\xFF', '\xE2\x82', \xE2?, \xED\xA0\x80 ?",
         {"SELECT \xF3\xB0\x80\x80, @1 , '\xFF', '\xE2\x82', \xE2@2 , \xED\xA0\x80 @3 ", 1, 3}},
    };
    for (const auto& c : cases) EXPECT_EQ(Normalize(c.sql), c.result) << c.sql;
    int type = 0;
    DynStr out;
    out.Set("x");
    EXPECT_EQ(NormalizeSQL("SELECT ?", out, &type, nullptr), 0);
    EXPECT_STREQ(out.Deref(), "xSELECT @1 ");
}

TEST(NormalizeSqlTest, AnyBytesAreSafe) {
    std::mt19937 random(5);
    const std::string alphabet = "?@:='\"[]`\\/*-# \nNa1.,<>;{\xC3\xA9\xF0\x9F\xFF";
    for (int round = 0; round < 20000; ++round) {
        std::string sql = round % 2 == 0 ? "EXEC p " : "SELECT ";
        for (auto left = random() % 40; left > 0; --left)
            sql += alphabet[random() % alphabet.size()];
        MarkerWalk walk(sql.c_str());
        int markers = 0;
        std::string pieces;
        while (const SQL_TOKEN* marker = walk.NextMarker()) {
            ++markers;
            EXPECT_FALSE(marker->Text().empty());
            pieces += walk.TakeText();
        }
        pieces += walk.TakeText();
        // The pieces are the statement less white space, and both users count alike.
        const auto blank = [](char c) { return SQLTK_IsWhitespace(static_cast<unsigned char>(c)); };
        std::erase_if(pieces, blank);
        std::string all = sql;
        std::erase_if(all, blank);
        ASSERT_EQ(pieces, all) << sql;
        ASSERT_EQ(Normalize(sql).paramCount, markers) << sql;
    }
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
        EXPECT_EQ(Normalize(quoted), (Normalized{quoted, 1, 0}));
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
    int type = 0;
    EXPECT_THROW(NormalizeSQL(text, out, &type, nullptr), std::bad_alloc);
    EXPECT_EQ(out.Length(), 0);
    munmap(reserved, (kParts + 1) * kPart);
    close(file);
}

#if !defined(__SANITIZE_ADDRESS__)
// Runs `action` in a process that can get no more big blocks; whether it threw std::bad_alloc.
template <typename Action>
void ExpectBadAlloc(Action action) {
    const auto run = [&] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_AS, &none);
        try {
            action();
        } catch (const std::bad_alloc&) {
            _exit(0);
        }
        _exit(1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(NormalizeSqlTest, WithoutMemoryNothingIsShortenedOrMistaken) {
    const std::string big(64 << 20, 'a');
    const std::string words = "SELECT (" + big + ")?";
    ExpectBadAlloc([&] {
        DynStr out;
        int type = 0;
        NormalizeSQL(words.c_str(), out, &type, nullptr);
    });
    const std::string literal = "SELECT '" + big + "\\x ? '";
    ExpectBadAlloc([&] { MarkerWalk(literal.c_str()).NextMarker(); });
}
#endif

TEST(NormalizeSqlTest, LightFormOnlyClassifies) {
    const struct {
        const char* sql;
        const char* verb;
    } cases[] = {{" select ?", "SELECT"}, {"UPDATE t", "UPDATE"}, {"Insert", "INSERT"},
                 {"delete ", "DELETE"},   {"EXEC p", nullptr},    {"EXECUTE p", nullptr},
                 {"'SELECT'", nullptr},   {"", nullptr}};
    for (const auto& c : cases) {
        DynStr out;
        out.Set("before");
        const char* verb = "unset";
        EXPECT_EQ(NormalizeSQL(c.sql, out, &verb), c.verb != nullptr ? 0 : -1) << c.sql;
        EXPECT_STREQ(verb, c.verb);
        EXPECT_STREQ(out.Deref(), c.verb != nullptr ? c.sql : "before");
    }
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
