// The texts of wide functions: all of Unicode both ways, and nothing else.
#include "odbc/utf16.h"

#include <gtest/gtest.h>

#include <sstream>

#include "core/error.h"

namespace embedded_test {
namespace {

using embedded::WideText;

/// The state of the failure, or "".
template <class Work>
std::string stateOf(Work&& work) {
    try {
        work();
        return "";
    } catch (const embedded::Error& error) {
        return std::string(error.state());
    }
}

WideText units(char32_t c) {
    if (c < 0x10000) return {static_cast<SQLWCHAR>(c)};
    return {static_cast<SQLWCHAR>(0xD7C0 + (c >> 10)), static_cast<SQLWCHAR>(0xDC00 + c % 0x400)};
}

TEST(Utf16, HasEveryCharacterBothWays) {
    std::string previous;
    for (char32_t c = 1; c <= 0x10FFFF; ++c) {
        const WideText wide = units(c);
        const bool surrogate = c >= 0xD800 && c <= 0xDFFF;
        std::string text;
        const std::string state =
            stateOf([&] { text = embedded::narrowText(wide.data(), wide.size()); });
        ASSERT_EQ(surrogate ? "22021" : "", state) << std::hex << static_cast<unsigned>(c);
        if (surrogate) {
            ASSERT_EQ("\uFFFD", embedded::readableText(wide.data(), wide.size()));
            continue;
        }
        // In the order of the characters, since UTF-8 keeps it, and at its shortest.
        ASSERT_LT(previous, text);
        ASSERT_EQ(c < 0x80 ? 1U : c < 0x800 ? 2U : c < 0x10000 ? 3U : 4U, text.size());
        WideText back;
        embedded::appendWide(text, back);
        ASSERT_EQ(wide, back);
        previous = text;
    }
}

TEST(Utf16, RefusesWhatIsNoUtf8) {
    std::istringstream texts(
        "\x80 a\xBF \xC0\x80 \xC1\xBF \xC3 \xC3( \xE0\x80\x80 \xE0\x9F\xBF \xE2\x82 \xE2(\xA1 "
        "\xE2\x82( \xED\xA0\x80 \xED\xBF\xBF \xF0\x80\x80\x80 \xF0\x8F\xBF\xBF \xF0\x9F\x98 "
        "\xF0\x9F\x98( \xF4\x90\x80\x80 \xF5\x80\x80\x80 \xF8\x88\x80\x80\x80 \xFE \xFF");
    for (std::string text; texts >> text;) {
        EXPECT_EQ("22021", stateOf([&] { embedded::wideText(text); })) << text;
        EXPECT_EQ("22021", stateOf([&] { embedded::requireUtf8(text, "no"); })) << text;
    }
    EXPECT_EQ((WideText{'a', 0, 0x20AC, 0}), embedded::wideText({"a\0\xE2\x82\xAC", 5}));
}

}  // namespace
}  // namespace embedded_test
