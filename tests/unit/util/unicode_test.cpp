#include "include/unicode.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

unsigned int DecodeUtf16(unsigned short first, unsigned short second, int& units) {
    const unsigned short in[] = {first, second};
    unsigned int c = 0xDEAD;
    units = ucs2_to_ucs4(in, c);
    return c;
}

TEST(Utf16, DecodesPairsFromTheirLowHalf) {
    int units = 0;
    EXPECT_EQ(DecodeUtf16(0xD83D, 0xDE00, units), 0x90200U);
    EXPECT_EQ(units, 2);
    EXPECT_EQ(DecodeUtf16(0xE000, 0, units), 0xE000U);
    EXPECT_EQ(units, 1);
    DecodeUtf16(0xDC00, 0xDC00, units);
    EXPECT_EQ(units, 0);
    DecodeUtf16(0xD83D, 'x', units);
    EXPECT_EQ(units, 0);
    const unsigned short pair[] = {0xD83D, 0xDE00};
    char bytes[4];
    EXPECT_EQ(ucs2_to_utf8(pair, bytes), 4);
    EXPECT_EQ(std::string(bytes, 4), "\xF2\x90\x88\x80");
}

TEST(Utf16, EncodesBelowPlane15) {
    unsigned short out[2] = {};
    EXPECT_EQ(ucs4_to_ucs2(0x1F600, out), 2);
    EXPECT_EQ(out[0], 0xD83D);
    EXPECT_EQ(out[1], 0xDE00);
    EXPECT_EQ(ucs4_to_ucs2(0xEFFFF, nullptr), 2);
    EXPECT_EQ(ucs4_to_ucs2(0xF0000, out), 0);
    EXPECT_EQ(ucs4_to_ucs2(0xD800, out), 1);
}

TEST(Utf8, EveryLengthGoesThereAndBack) {
    const unsigned int limits[] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000};
    for (int length = 1; length <= 6; ++length) {
        const unsigned int limit = limits[length - 1];
        const unsigned int lowest = length == 1 ? 1 : limits[length - 2];
        for (const unsigned int c : {lowest, lowest + 0x2A, limit - 1}) {
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
    const std::vector<unsigned short> utf16 = {'A', 0xE9, 0x20AC, 0};
    std::vector<unsigned short> units(16, 0x7777);
    EXPECT_EQ(utf8string_to_utf16string(utf8.c_str(), units.data()), 3);
    EXPECT_TRUE(std::equal(utf16.begin(), utf16.end(), units.begin()));
    std::vector<char> bytes(32, 'x');
    EXPECT_EQ(utf16string_to_utf8string(utf16.data(), bytes.data()), 6);
    EXPECT_EQ(bytes.data(), utf8);
    EXPECT_EQ(utf8string_to_utf16string("", units.data()), 0);
    EXPECT_EQ(units[0], 0);
    EXPECT_EQ(utf8string_to_utf16string("ab\xFF", units.data()), 0);
    EXPECT_EQ(utf8string_to_utf16string("ab\xF3\xB0\x80\x80", units.data()), 0);  // U+F0000
}

TEST(Strings, StopAtTheTerminatorOfACutSequence) {
    // What follows the terminator must not be read; as an exact allocation, a sanitizer sees it
    // too.
    const std::vector<char> text = {'a', '\xF0', '\0'};
    std::vector<unsigned short> units(16, 0x7777);
    EXPECT_EQ(utf8string_to_utf16string(text.data(), units.data()), 2);
    EXPECT_EQ(units[2], 0);
}

}  // namespace
