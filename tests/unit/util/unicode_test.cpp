#include "include/unicode.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(Utf16, DecodesPairsFromTheirLowHalf) {
    const struct {
        unsigned short first, second;
        int units;
        unsigned int character;
    } cases[] = {{0xD83D, 0xDE00, 2, 0x90200},
                 {0xE000, 0, 1, 0xE000},
                 {0xDC00, 0xDC00, 0, 0},
                 {0xD83D, 'x', 0, 0}};
    for (const auto& c : cases) {
        const unsigned short in[] = {c.first, c.second};
        unsigned int character = 0;
        EXPECT_EQ(ucs2_to_ucs4(in, character), c.units) << c.first;
        EXPECT_EQ(character, c.character);
    }
    const unsigned short pair[] = {0xD83D, 0xDE00};
    char bytes[4];
    EXPECT_EQ(ucs2_to_utf8(pair, bytes), 4);
    EXPECT_EQ(std::string(bytes, 4), "\xF2\x90\x88\x80");
}

TEST(Utf16, EncodesBelowPlane15) {
    unsigned short out[2] = {};
    EXPECT_EQ(ucs4_to_ucs2(0x1F600, out), 2);
    EXPECT_TRUE(out[0] == 0xD83D && out[1] == 0xDE00);
    EXPECT_EQ(ucs4_to_ucs2(0xEFFFF, nullptr), 2);
    EXPECT_EQ(ucs4_to_ucs2(0xF0000, out), 0);
    EXPECT_EQ(ucs4_to_ucs2(0xD800, out), 1);
}

TEST(Utf8, EveryLengthGoesThereAndBack) {
    const unsigned int limits[] = {1, 0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000};
    for (int length = 1; length <= 6; ++length) {
        for (const unsigned int c : {limits[length - 1], limits[length] - 1}) {
            char bytes[7] = {};
            EXPECT_EQ(ucs4_to_utf8(c, nullptr), length);
            EXPECT_EQ(ucs4_to_utf8(c, bytes), length);
            unsigned int back = 0;
            EXPECT_EQ(utf8_to_usc4(bytes, back), length);
            EXPECT_EQ(back, c);
        }
    }
    EXPECT_EQ(ucs4_to_utf8(0x80000000, nullptr), 0);
}

TEST(Utf8, BrokenSequencesKeepTheirAnnouncedLength) {
    unsigned int c = 0;
    EXPECT_EQ(utf8_to_usc4("\xC3\x41", c), 2);
    EXPECT_EQ(c, 3U);
    EXPECT_EQ(utf8_to_usc4("\xC0\xA7", c), 2);  // overlong
    EXPECT_EQ(c, 0x27U);
    for (const char* lead : {"\x80", "\xBF", "\xFE", "\xFF"}) EXPECT_EQ(utf8_to_usc4(lead, c), 0);
}

TEST(Strings, Convert) {
    const std::string utf8 = "A\xC3\xA9\xE2\x82\xAC";
    const std::u16string utf16 = u"A\u00E9\u20AC";
    std::vector<unsigned short> units(16, 0x7777);
    EXPECT_EQ(utf8string_to_utf16string(utf8.c_str(), units.data()), 3);
    EXPECT_EQ(std::u16string(units.begin(), units.begin() + 3), utf16);
    EXPECT_EQ(units[3], 0);
    std::vector<char> bytes(32, 'x');
    EXPECT_EQ(utf16string_to_utf8string(units.data(), bytes.data()), 6);
    EXPECT_EQ(bytes.data(), utf8);
    for (const char* none : {"", "ab\xFF", "ab\xF3\xB0\x80\x80"}) {  // the last is U+F0000
        EXPECT_EQ(utf8string_to_utf16string(none, units.data()), 0);
    }
    // What follows the terminator of a cut sequence must not be read; as an exact allocation, a
    // sanitizer sees it too.
    const std::vector<char> cut = {'a', '\xF0', '\0'};
    EXPECT_EQ(utf8string_to_utf16string(cut.data(), units.data()), 2);
    EXPECT_EQ(units[2], 0);
}

}  // namespace
