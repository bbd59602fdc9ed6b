#include "util/dynstr.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>

namespace {

std::string Text(const DynStr& s) {
    return {s.Deref(), static_cast<std::size_t>(s.Length())};
}

TEST(DynStrTest, MovesBetweenInlineAndHeap) {
    DynStr s;
    EXPECT_EQ(s.Set(std::string(99, 'x').c_str()), VORDA_OK);
    EXPECT_TRUE(s.IsInline());
    EXPECT_EQ(s.Append("y"), VORDA_OK);
    EXPECT_FALSE(s.IsInline());
    EXPECT_EQ(s.SpaceAvailable(), 150);
    EXPECT_EQ(Text(s), std::string(99, 'x') + "y");
    EXPECT_EQ(s.Resize(200, nullptr), VORDA_OK);
    EXPECT_EQ(s.SpaceAvailable(), 300);
    EXPECT_EQ(Text(s).substr(0, 100), std::string(99, 'x') + "y");
    EXPECT_EQ(s.Set("0123456789"), VORDA_OK);
    EXPECT_TRUE(s.IsInline());
    EXPECT_EQ(s.SpaceAvailable(), 99);
    EXPECT_STREQ(s.Deref(), "0123456789");
}

// Every operation against std::string, the lengths around the inline limit and the source sometimes
// a part of the string itself.
TEST(DynStrTest, AgreesWithAModel) {
    std::mt19937 random(7);
    const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    DynStr s;
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        std::string text(static_cast<std::size_t>(below(160)), static_cast<char>('a' + step % 26));
        const int operation = model.size() > 2000 ? 0 : below(6);
        const int pos = below(static_cast<int>(model.size()) + 1);
        const int rest = s.Length() - pos;
        const std::string tail = model.substr(static_cast<std::size_t>(pos));
        int status = VORDA_OK;
        switch (operation) {
            case 0:
                status = s.Set(text.c_str()), model = text;
                break;
            case 1:
                status = s.Append(text.c_str()), model += text;
                break;
            case 2:
                status = s.Append(s.DerefFrom(pos), rest), model += tail;
                break;
            case 3:
                status = s.Set(s.DerefFrom(pos), rest), model = tail;
                break;
            case 4:
                status = s.Resize(pos, nullptr), model.resize(static_cast<std::size_t>(pos));
                break;
            default:
                status = s.AppendInt(-step), model += std::to_string(-step);
                break;
        }
        ASSERT_EQ(status, VORDA_OK);
        ASSERT_EQ(Text(s), model) << "operation " << operation;
        ASSERT_EQ(s.Deref()[s.Length()], '\0');
        ASSERT_EQ(s.IsInline(), s.Length() <= 99);
    }
}

TEST(DynStrTest, OddLengthsAreHarmless) {
    DynStr s;
    s.Set("abc");
    EXPECT_EQ(s.Append(nullptr, 5), VORDA_OK);
    EXPECT_EQ(s.Append("x", -1), VORDA_OK);
    EXPECT_EQ(s.Append("de", 0x100000002LL), VORDA_OK);
    EXPECT_STREQ(s.Deref(), "abcde");
    EXPECT_EQ(s.Append("x", INT_MAX - 3), VORDA_OUT_OF_MEMORY);
    EXPECT_EQ(s.Resize(INT_MAX, nullptr), VORDA_OUT_OF_MEMORY);
    EXPECT_STREQ(s.Deref(), "abcde");
    EXPECT_EQ(s.Append("a\0b", 3), VORDA_OK);
    EXPECT_EQ(s.Length(), 8);
    EXPECT_EQ(s.Set(nullptr), VORDA_OK);
    EXPECT_EQ(s.Length(), 0);
    EXPECT_EQ(s.Resize(-5, "abc"), VORDA_OK);
    EXPECT_EQ(s.Length(), 0);
}

TEST(DynStrTest, Compares) {
    DynStr s;
    s.Set("Select x");
    EXPECT_TRUE(s.StartsWith("Select"));
    EXPECT_FALSE(s.StartsWith("select"));
    EXPECT_TRUE(s.EqualsNoCase("sELECT X"));
    EXPECT_FALSE(s.EqualsNoCase("select"));
    EXPECT_FALSE(s.Equals("select x"));
}

TEST(DynStrTest, AppendsDoubles) {
    const struct {
        double value;
        const char* text;
    } cases[] = {
        {3.25, "3.25"},
        {-0.25, "-0.25"},
        {0.05, "0.05"},
        {0.125, "0.125"},
        {1e-9, "0"},
        {5e-324, "0"},
        {0.123456785, "0.12345679"},
        {0.00000001, "0.00000001"},
        {2.0, "2"},
        {0.0, "0"},
        {-0.0, "0"},
        {-0.5, "-0.5"},
        {1.999999996, "2"},
        {-1.999999996, "-2"},
        {0.999999996, "-1"},
        {-0.999999996, "--1"},
        {2251799813685247.5, "2251799813685247.5"},
        {2251799813685248.5, "2251799813685248"},  // its half is the bit never looked at
        {4503599627370496.0, "4503599627370496"},
        {9223372036854775808.0, "9223372036854775808"},
        {-9223372036854775808.0, "-9223372036854775808"},
    };
    for (const auto& c : cases) {
        DynStr s;
        EXPECT_EQ(s.AppendDouble(c.value), VORDA_OK);
        EXPECT_STREQ(s.Deref(), c.text);
    }
    for (const double value : {1e19, -1e19, std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::quiet_NaN()}) {
        DynStr s;
        EXPECT_EQ(s.AppendDouble(value), VORDA_NUMBER_OUT_OF_RANGE);
        EXPECT_EQ(s.Length(), 0);
    }
}

TEST(DynStrTest, FormatsExtremeIntegers) {
    char buffer[32];
    EXPECT_EQ(FormatInt64(buffer, sizeof buffer, LLONG_MIN), 20);
    EXPECT_STREQ(buffer, "-9223372036854775808");
    EXPECT_EQ(FormatInt64(buffer, 3, 123), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(FormatInt64(buffer, 4, 123), 3);
}

}  // namespace
