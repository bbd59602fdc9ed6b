#include "util/core.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace {

TEST(MyStrToD, ReadsAsMuchAsIsANumber) {
    const struct {
        const char* text;
        double value;
        int read;
    } cases[] = {
        {"  -12.5e2x", -1250.0, 9},
        {"abc", 0.0, 0},
        {"  +", 0.0, 0},
        {".", 0.0, 0},
        {"\v1", 0.0, 0},
        {"1.5e", 15.0, 3},
        {"1.5e+", 15.0, 3},
        {"-.25", -0.25, 4},
        {"1.2.3", 1.2, 3},
        {"7.", 7.0, 2},
        {"1234567890123456789012345", 123456789012345678e7, 25},
        {"0.0000000001e10", 1.0, 15},
        {"1e999", HUGE_VAL, 5},
        {"1e-999", 0.0, 6},
        {"1e99999999999999999999999", HUGE_VAL, 25},
    };
    for (const auto& [text, value, read] : cases) {
        char* end = nullptr;
        EXPECT_DOUBLE_EQ(mystrtod(text, &end), value) << text;
        EXPECT_EQ(end, text + read) << text;
    }
    EXPECT_EQ(mystrtod("2.5", nullptr), 2.5);
}

TEST(Integers, ParseUpToTheFirstOtherCharacter) {
    EXPECT_EQ(myatoi(" 42"), 0);
    EXPECT_EQ(myatoi("-42abc"), -42);
    EXPECT_EQ(myatoi("+7"), 7);
    EXPECT_EQ(myatoi(nullptr), 0);
    EXPECT_EQ(myatoi("-2147483648"), INT32_MIN);
    EXPECT_EQ(myatoi("4294967297"), 1);
    EXPECT_EQ(myatol("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(myatoi64("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(myhextoi("0x1F"), 0);
    EXPECT_EQ(myhextoi("-aG"), -10);
    EXPECT_EQ(myhextol("1f"), 31);
    EXPECT_EQ(myhextoi64("ffffffffffffffff"), -1);
}

TEST(Comparison, FoldsAsciiOnly) {
    EXPECT_LT(mystrcmpi("ABC", "abd"), 0);
    EXPECT_EQ(mystrcmpi("aBc", "AbC"), 0);
    EXPECT_EQ(mystrcmpi("a", ""), 'a');
    EXPECT_GT(mystrcmpi("\xC9", "z"), 0);
    EXPECT_NE(mystrcmpi("\xC9", "\xE9"), 0);
    EXPECT_NE(mystrcmpi("[", "{"), 0);
    EXPECT_EQ(mystrncmpi("abcX", "ABCY", 3), 0);
    EXPECT_EQ(mystrncmpi("ab", "AB", 9), 0);
    const char* const text = "one TWO two";
    EXPECT_EQ(mystrstri(text, "two"), text + 4);
    EXPECT_EQ(mystrstri(text, "twos"), nullptr);
    EXPECT_EQ(mystrstri("", ""), nullptr);
}

TEST(Writing, PadsAndTerminates) {
    char buffer[16];
    char* out = buffer;
    myutoa(&out, 42, 5, '0');
    EXPECT_STREQ(buffer, "00042");
    myutoa(&out, 4294967295U, 1, ' ');
    EXPECT_STREQ(buffer, "000424294967295");
}

TEST(Splitting, CutsInPlace) {
    std::string text = "a;b";
    char* rest = mystrtok(text.data(), ';');
    EXPECT_STREQ(text.c_str(), "a");
    EXPECT_STREQ(rest, "b");
    EXPECT_EQ(*mystrtok(rest, ';'), '\0');

    text = "k=v,";
    EXPECT_EQ(mystrtok2(text.data(), ",=", rest), '=');
    EXPECT_STREQ(rest, "v,");
    EXPECT_EQ(mystrtok2(rest, ",=", rest), ',');
    EXPECT_EQ(mystrtok2(rest, ",=", rest), '\0');
    EXPECT_EQ(rest, text.data() + 4);
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
