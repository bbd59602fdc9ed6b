#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "mono/dbsource.h"

namespace {

// What a map says of every value in and around the tables: as listed ("from:to from:to"), and the
// default for all others.
void ExpectMap(int (*function)(int), const char* listed, int defaultValue) {
    std::istringstream text(listed);
    std::map<int, int> expected;
    char colon;
    for (int from, to; text >> from >> colon >> to;) expected[from] = to;
    ASSERT_TRUE(text.eof());
    for (int value = -130; value <= 130; ++value) {
        const auto found = expected.find(value);
        EXPECT_EQ(function(value), found != expected.end() ? found->second : defaultValue) << value;
    }
    EXPECT_EQ(function(-32768), defaultValue);
    EXPECT_EQ(function(0x7fffffff), defaultValue);
}

TEST(TypeMaps, MapWhatTheyKnowAndDefaultTheRest) {
    ExpectMap(DbTypeToODBCType, "1:-2 2:-6 3:-7 5:9 6:11 7:2 8:8 10:5 11:4 12:-25 15:7 17:10 21:2",
              -8);
    ExpectMap(ODBCTypeToDbType, "-25:12 -7:3 -6:2 -2:1 2:21 4:11 5:10 7:15 8:8 9:5 10:17 11:6", 16);
    ExpectMap(ODBCTypeToSQLType, "-25:-5 -7:-7 -6:-6 -2:-2 1:1 2:2 4:4 5:5 7:6 8:8 9:9 10:10 11:11",
              -9);
    ExpectMap(SQLTypeToODBCType,
              "-7:-7 -6:-6 -5:-25 -3:-2 -2:-2 1:1 2:2 3:2 4:4 5:5 6:8 7:7 8:8 9:9 10:10 11:11 "
              "91:9 92:10 93:11",
              -8);
    ExpectMap([](int type) { return ODBCTypeSize(type, 200); },
              "-28:1 -26:1 -7:1 -6:1 -17:2 -15:2 5:2 -18:4 -16:4 4:4 7:4 9:6 10:6 91:6 92:6 -27:8 "
              "-25:8 8:8 -11:16 11:16 93:16 2:19",
              200);
}

}  // namespace
