// The conversions between UTF-8, UTF-16 and code points against a decoder that counts bits.
#include "include/unicode.h"

#include <bit>

#include "fuzz.h"

namespace {

using fuzz::require;

struct Decoded {
    int length = 0;  // announced by the lead byte
    unsigned code = 0;
};

// The number of leading ones is the length; broken sequences keep what was gathered.
Decoded decode(const char* in) {
    const auto lead = static_cast<unsigned char>(*in);
    const int ones = std::countl_one(lead);
    if (ones == 0) return {1, lead};
    if (ones == 1 || ones > 6) return {};
    unsigned code = lead & (0xFFU >> (ones + 1));
    for (int i = 1; i < ones; ++i) {
        const auto next = static_cast<unsigned char>(in[i]);
        if (std::countl_one(next) != 1) break;
        code = code << 6 | (next & 63U);
    }
    return {ones, code};
}

std::string encode8(unsigned code) {
    const auto width = std::bit_width(code);
    if (width <= 7) return {static_cast<char>(code)};
    if (width > 31) return {};
    const int length = static_cast<int>((width + 3) / 5);
    std::string text;
    for (int i = 1; i < length; ++i, code >>= 6) {
        text.insert(text.begin(), static_cast<char>(0x80 | (code & 63U)));
    }
    // As many ones as bytes, then a zero.
    text.insert(text.begin(), static_cast<char>((0xFF00U >> length & 0xFFU) | code));
    return text;
}

std::u16string encode16(unsigned code) {
    if (code >= 0xF0000) return {};
    if (code < 0x10000) return {static_cast<char16_t>(code)};
    const unsigned above = code - 0x10000;
    return {static_cast<char16_t>(0xD800 + above / 0x400),
            static_cast<char16_t>(0xDC00 + above % 0x400)};
}

// Of a pair both halves come from the second unit.
Decoded decode16(const unsigned short* in) {
    if (*in < 0xD800 || *in > 0xDFFF) return {1, *in};
    const bool pair = *in < 0xDC00 && in[1] >= 0xDC00 && in[1] < 0xE000;
    const unsigned low = in[1] & 0x3FFU;
    return pair ? Decoded{2, low + (low + 0x40) * 0x400} : Decoded{};
}

void checkCode(unsigned code) {
    char bytes[6];
    const std::string expected = encode8(code);
    const auto length = static_cast<int>(expected.size());
    require(ucs4_to_utf8(code, nullptr) == length && ucs4_to_utf8(code, bytes) == length,
            "the length in UTF-8");
    fuzz::requireSame({bytes, expected.size()}, expected, "the bytes");
    unsigned short units[2] = {};
    const std::u16string wide = encode16(code);
    const auto count = static_cast<int>(wide.size());
    require(ucs4_to_ucs2(code, nullptr) == count && ucs4_to_ucs2(code, units) == count,
            "the length in UTF-16");
    require(std::equal(wide.begin(), wide.end(), units), "the units");
}

void checkUtf8(std::string_view text) {
    const std::vector<char> in = fuzz::terminated(text.substr(0, text.find('\0')));
    std::u16string expected;
    bool good = true;
    for (const char* p = in.data(); *p != '\0' && good;) {
        const Decoded c = decode(p);
        unsigned code = 0;
        require(utf8_to_usc4(p, code) == c.length, "the announced length");
        require(c.length == 0 || code == c.code, "the code point of UTF-8");
        const std::u16string units = encode16(c.code);
        good = c.length > 0 && !units.empty();
        expected += units;
        for (int i = 0; i < c.length && *p != '\0'; ++i) ++p;
    }
    // As large as callers are told to make it.
    std::vector<unsigned short> out(2 * (in.size() - 1) + 1, 0xAAAA);
    const int length = utf8string_to_utf16string(in.data(), out.data());
    require(length == (good ? static_cast<int>(expected.size()) : 0), "the number of units");
    if (!good) return;
    require(std::equal(expected.begin(), expected.end(), out.begin()), "the units of the text");
    require(out[expected.size()] == 0, "the units are terminated");
    const bool pairs = std::any_of(expected.begin(), expected.end(),
                                   [](char16_t c) { return c >= 0xD800 && c < 0xE000; });
    if (pairs || !fuzz::isStrict(in.data())) return;
    std::vector<char> back(4 * expected.size() + 1);
    utf16string_to_utf8string(out.data(), back.data());
    fuzz::requireSame(back.data(), in.data(), "there and back");
}

void checkUtf16(fuzz::Input input) {
    std::vector<unsigned short> in;
    while (!input.empty()) {
        const auto unit = input.number<unsigned short>();
        if (unit == 0) break;
        in.push_back(unit);
    }
    in.push_back(0);
    in.shrink_to_fit();
    std::string expected;
    bool good = true;
    for (const unsigned short* p = in.data(); *p != 0 && good;) {
        const Decoded c = decode16(p);
        unsigned code = 0;
        char bytes[6];
        require(ucs2_to_ucs4(p, code) == c.length, "the units of a character");
        require(c.length == 0 || code == c.code, "the code point of UTF-16");
        const std::string text = c.length > 0 ? encode8(c.code) : "";
        require(ucs2_to_utf8(p, bytes) == static_cast<int>(text.size()), "one character's length");
        fuzz::requireSame({bytes, text.size()}, text, "one character");
        good = c.length > 0;
        expected += text;
        p += c.length;
    }
    std::vector<char> out(4 * (in.size() - 1) + 1, '?');
    const int length = utf16string_to_utf8string(in.data(), out.data());
    require(length == (good ? static_cast<int>(expected.size()) : 0), "the number of bytes");
    if (good) fuzz::requireSame(out.data(), expected, "the bytes of the text");
}

}  // namespace

// The same bytes as a code point, as UTF-8 and as UTF-16.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::Input input(data, size);
    // The limits of all lengths are powers of two.
    for (unsigned shift = 0; shift < 32; ++shift) {
        checkCode(1U << shift);
        checkCode((1U << shift) - 1);
    }
    const auto bits = fuzz::Input(input).number<std::uint32_t>();
    checkCode(bits);
    checkCode(bits >> (bits & 31U));
    checkUtf8(fuzz::Input(input).rest());
    checkUtf16(input);
    return 0;
}
