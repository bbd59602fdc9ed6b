// Numbers as text are the matter of the fuzz target "numbers".
#include "util/dynstr.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>

namespace {

std::string Text(const DynStr& s) {
    return {s.Deref(), static_cast<std::size_t>(s.Length())};
}

TEST(DynStrTest, TheHeapBlockIsHalfAsLargeAgain) {
    DynStr s;
    s.Set(std::string(99, 'x').c_str());
    EXPECT_EQ(s.SpaceAvailable(), 99);
    s.Append("y");
    EXPECT_EQ(s.SpaceAvailable(), 150);
    s.Resize(200, nullptr);
    EXPECT_EQ(s.SpaceAvailable(), 300);
    EXPECT_EQ(Text(s).substr(0, 100), std::string(99, 'x') + "y");
    s.Set("0123456789");
    EXPECT_EQ(s.SpaceAvailable(), 99);
}

// Every operation against std::string, the lengths around the inline limit and the source sometimes
// a part of the string itself.
TEST(DynStrTest, AgreesWithAModel) {
    std::mt19937 random(7);
    const auto below = [&](std::size_t n) { return random() % n; };
    DynStr s;
    std::string model;
    for (int step = 0; step < 20000; ++step) {
        const std::string text(below(160), static_cast<char>('a' + step % 26));
        const std::size_t operation = model.size() > 2000 ? 0 : below(6);
        const auto pos = static_cast<int>(below(model.size() + 1));
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
                status = s.Append(s.DerefFrom(pos), s.Length() - pos), model += tail;
                break;
            case 3:
                status = s.Set(s.DerefFrom(pos), s.Length() - pos), model = tail;
                break;
            case 4:
                status = s.Resize(pos, nullptr), model.resize(static_cast<std::size_t>(pos));
                break;
            default:
                status = s.AppendInt(-step), model += std::to_string(-step);
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

}  // namespace
