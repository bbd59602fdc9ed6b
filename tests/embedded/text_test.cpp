// What the fuzz targets connect, convert and procedure do not compare with an answer of their own.
#include <gtest/gtest.h>

#include "sqlite/sqltext.h"

namespace embedded_test {
namespace {

using namespace embedded;

TEST(Scanner, IsLinear) {
    std::string sql = "SELECT 1";
    for (int i = 0; i < 200000; ++i) sql += "/**/--x\n@1 '";
    EXPECT_EQ(sql.size(), numberedMarkers(sql).size());
    EXPECT_FALSE(isBlankSql(sql));
}

TEST(Scanner, WritesNumbersWhereTheyMatter) {
    EXPECT_EQ("? ,? ,?1,?4,? ", numberedMarkers("@1,@2,@1,@4,@5"));
    EXPECT_EQ("?,? ,?,?2", numberedMarkers("?,@2,?,@2"));
    EXPECT_EQ("?2,?1", numberedMarkers("@2,@1"));
    EXPECT_EQ("$x,?1,?2", numberedMarkers("$x,@1,@2"));
    EXPECT_EQ("?7,?  ", numberedMarkers("?7,@8 "));
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
