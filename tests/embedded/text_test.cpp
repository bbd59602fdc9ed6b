// What the fuzz targets connect, convert and procedure do not compare with an answer of their own.
#include <gtest/gtest.h>

#include "sqlite/sqltext.h"

namespace embedded_test {
namespace {

using namespace embedded;

TEST(SqliteText, IsReadInOneGo) {
    std::string sql = "SELECT 1";
    for (int i = 0; i < 200000; ++i) sql += "/**/--x\n@1 '";
    EXPECT_EQ(sql.size(), readSql(sql).sql.size());
    EXPECT_FALSE(isBlankSql(sql));
    EXPECT_TRUE(readSql(" /* x */ ; Replace INTO t").inserts);
    EXPECT_TRUE(readSql("select 1 from a lEFT join b").mayJoinOuter);
    EXPECT_FALSE(readSql("select 'left' as \"right\" from leftover -- full").mayJoinOuter);
}

TEST(SqliteText, HasNumbersWhereTheyMatter) {
    EXPECT_EQ("? ,? ,?1,?4,? ", readSql("@1,@2,@1,@4,@5").sql);
    EXPECT_EQ("?,? ,?,?2", readSql("?,@2,?,@2").sql);
    EXPECT_EQ("?2,?1", readSql("@2,@1").sql);
    EXPECT_EQ("$x,?1,?2", readSql("$x,@1,@2").sql);
    EXPECT_EQ("?7,?  ", readSql("?7,@8 ").sql);
}

}  // namespace
}  // namespace embedded_test
