// What the fuzz target "numbers" leaves out; see tests/fuzz.
#include "util/core.h"

#include <gtest/gtest.h>

#include <string_view>

namespace {

TEST(Integers, NoTextIsZero) {
    EXPECT_EQ(myatoi(nullptr), 0);
    EXPECT_EQ(myhextoi64(nullptr), 0);
}

TEST(Classes, AreAsciiAndNarrow) {
    const auto isIn = [](char c, std::string_view set) { return set.find(c) != set.npos; };
    for (int i = 0; i < 256; ++i) {
        const char c = static_cast<char>(i);
        EXPECT_EQ(mypisdigit(c), isIn(c, "0123456789")) << i;
        EXPECT_EQ(myisxdigit(c), isIn(c, "0123456789abcdefABCDEF")) << i;
        EXPECT_EQ(mypisspace(c), isIn(c, " \t\r\n")) << i;
    }
}

}  // namespace
