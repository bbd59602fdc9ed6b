#include "text.h"

#include <gtest/gtest.h>

#include "numbers.h"
#include "sqlscanner.h"
#include "temporal.h"

namespace embedded_test {
namespace {

using namespace embedded;

TEST(Text, IsCutAtWholeCharacters) {
    const std::string text = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
    const size_t ends[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 10};
    for (size_t limit = 0; limit < std::size(ends); ++limit) {
        EXPECT_EQ(ends[limit], wholeCharacters(text, limit)) << limit;
    }
    // Not UTF-8: cut where asked rather than never.
    EXPECT_EQ(5U, wholeCharacters(std::string(9, '\x80'), 5));
}

TEST(Decimals, LoseTheirExponentAndNothingElse) {
    const std::pair<const char*, const char*> cases[] = {
        {"0", "0"},         {"-0.50", "-0.50"}, {"+7", "7"},        {".5", "0.5"},
        {"5.", "5"},        {"1e3", "1000"},    {"1.25e1", "12.5"}, {"125e-2", "1.25"},
        {"1E-3", "0.001"},  {"0012.0", "12.0"}, {" 3 ", "3"},       {"12.5e+1", "125"},
        {"1.5e-1", "0.15"}, {"0.000e2", "0.0"},
    };
    for (const auto& [text, plain] : cases) EXPECT_EQ(plain, plainDecimal(text)) << text;
    for (const char* bad : {"", "-", ".", "e5", "1e", "1e+", "1e+-3", "1x", "0x10", "--1", "1 2",
                            "nan", "inf", "1e1001", "1e99999999999"}) {
        EXPECT_FALSE(plainDecimal(bad)) << bad;
    }
    EXPECT_EQ("1e+23", [] {
        NumberBuffer buffer;
        return std::string(formatDouble(1e23, buffer));
    }());
    EXPECT_EQ("1" + std::string(23, '0'), plainDecimal(1e23));
}

TEST(Temporals, AreReadBackAsWritten) {
    for (const char* text :
         {"2020-02-29 23:59:59.999999999", "0001-01-01 00:00:00", "9999-12-31 12:00:00.000001"}) {
        const auto parsed = parseTemporal(text);
        ASSERT_TRUE(parsed) << text;
        EXPECT_EQ(text, formatDateTime(parsed->value));
    }
    for (const char* bad :
         {"2020-1-2", "2020-01-02T", "2020/01/02", "1900-02-29", "12", "12:60", "1:2:3",
          "2020-01-02 10", "12:00:60", "12:00:00.x", " 12:00", "12:00 "}) {
        EXPECT_FALSE(parseTemporal(bad)) << bad;
    }
}

TEST(Scanner, RewritesMarkersOnly) {
    const std::pair<const char*, const char*> cases[] = {
        {"@1 ", "?1 "},
        {"a@1", "a?1"},
        {"@1a @a1 @ $@1", "@1a @a1 @ $?1"},
        {"'@1' \"@1\" `@1` [@1] @2", "'@1' \"@1\" `@1` [@1] ?2"},
        {"'it''s @1' @2", "'it''s @1' ?2"},
        {"'\\' @1 '\\'", "'\\' ?1 '\\'"},
        {"-- @1\n@2 /* @3 */ @4", "-- @1\n?2 /* @3 */ ?4"},
        {"/* @1", "/* @1"},
        {"'@1", "'@1"},
        {"[a]]@1]", "[a]]?1]"},
        {"/*/ @1 */ @2", "/*/ @1 */ ?2"},
        {"- @1 / @2 -", "- ?1 / ?2 -"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(expected, numberedMarkers(text));
}

TEST(Scanner, IsLinear) {
    std::string sql = "SELECT 1";
    for (int i = 0; i < 200000; ++i) sql += "/**/--x\n@1 '";
    EXPECT_EQ(sql.size(), numberedMarkers(sql).size());
    EXPECT_FALSE(isBlankSql(sql));
}

TEST(Scanner, TellsVerbs) {
    EXPECT_EQ(Verb::Query, verbOf(" /* x */ ; select 1"));
    EXPECT_EQ(Verb::Change, verbOf("REPLACE INTO t"));
    EXPECT_EQ(Verb::Other, verbOf("CREATE TABLE t (a)"));
    EXPECT_EQ(Verb::Other, verbOf(""));
    EXPECT_TRUE(mayJoinOuter("select 1 from a lEFT join b"));
    EXPECT_FALSE(mayJoinOuter("select 'left' as \"right\" from leftover -- full"));
}

}  // namespace
}  // namespace embedded_test
