// The conversions between UTF-8, UTF-16 and code points, beside iconv's.
#include "include/unicode.h"

#include "fuzz.h"

namespace {

using fuzz::require;

// Where the supplementary private planes begin nothing is converted any more.
constexpr unsigned kEnd = 0xF0000;

void checkCode(unsigned code) {
    char bytes[6];
    const int length = ucs4_to_utf8(code, bytes);
    require(ucs4_to_utf8(code, nullptr) == length, "the length in UTF-8, without room");
    const std::string_view text(bytes, static_cast<std::size_t>(length));
    unsigned short units[2] = {};
    const int count = ucs4_to_ucs2(code, units);
    require(ucs4_to_ucs2(code, nullptr) == count, "the length in UTF-16, without room");
    require((count == 0) == (code >= kEnd), "what has no units");
    fuzz::tell(code, text, count, units[0], units[1]);
    const std::string_view one(reinterpret_cast<const char*>(&code), sizeof code);
    const auto strict = fuzz::converted(one, "UTF-16LE", "UTF-32LE");
    if (!strict) return;
    fuzz::requireSame(text, *fuzz::converted(one, "UTF-8", "UTF-32LE"), "the bytes");
    if (count == 0) return;
    fuzz::requireSame({reinterpret_cast<const char*>(units), static_cast<std::size_t>(2 * count)},
                      *strict, "the units");
    unsigned back = 0;
    require(code == 0 || (utf8_to_usc4(bytes, back) == length && back == code), "there and back");
}

void checkUtf8(std::string_view text) {
    const std::vector<char> in = fuzz::terminated(text.substr(0, text.find('\0')));
    // As large as callers are told to make it.
    std::vector<unsigned short> out(2 * (in.size() - 1) + 1, 0xAAAA);
    const int count = utf8string_to_utf16string(in.data(), out.data());
    unsigned code = 0;
    const int announced = utf8_to_usc4(in.data(), code);
    fuzz::tell("8", announced, code, count);
    for (int i = 0; i < count; ++i) fuzz::tell(out[static_cast<std::size_t>(i)]);
    const auto strict = fuzz::converted(in.data(), "UTF-16LE", "UTF-8");
    if (!strict) return;
    // The lead surrogates of the private planes begin there.
    const auto units = static_cast<std::size_t>(count);
    if (count == 0 && strict->find('\xDB') != std::string::npos) return;
    fuzz::requireSame({reinterpret_cast<const char*>(out.data()), 2 * units}, *strict,
                      "the units of the text");
    require(out[units] == 0, "the units are terminated");
    const bool pairs = std::any_of(out.begin(), out.begin() + count,
                                   [](unsigned short c) { return c >= 0xD800 && c < 0xE000; });
    std::vector<char> back(4 * units + 1);
    utf16string_to_utf8string(out.data(), back.data());
    if (!pairs) fuzz::requireSame(back.data(), in.data(), "there and back");
}

void checkUtf16(fuzz::Input input) {
    std::vector<unsigned short> in;
    while (!input.empty()) in.push_back(input.number<unsigned short>());
    in.push_back(0);
    in.erase(std::find(in.begin(), in.end(), 0) + 1, in.end());
    in.shrink_to_fit();
    char bytes[6];
    unsigned code = 0;
    fuzz::tell("16", ucs2_to_ucs4(in.data(), code), code, ucs2_to_utf8(in.data(), bytes));
    std::vector<char> out(4 * (in.size() - 1) + 1, '?');
    const int length = utf16string_to_utf8string(in.data(), out.data());
    require(length >= 0 && static_cast<std::size_t>(length) < out.size(), "the number of bytes");
    fuzz::tell(std::string_view(out.data(), static_cast<std::size_t>(length)));
    const std::string_view units(reinterpret_cast<const char*>(in.data()), 2 * (in.size() - 1));
    const auto strict = fuzz::converted(units, "UTF-8", "UTF-16LE");
    const bool pairs = std::any_of(in.begin(), in.end(),
                                   [](unsigned short c) { return c >= 0xD800 && c < 0xE000; });
    if (strict && !pairs) fuzz::requireSame(out.data(), *strict, "the bytes of the text");
}

}  // namespace

// The same bytes as a code point, as UTF-8 and as UTF-16.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::Input input(data, size);
    // The limits of all lengths are powers of two.
    for (unsigned shift = 0; shift < 32 && size == 0; ++shift) {
        checkCode(1U << shift);
        checkCode((1U << shift) - 1);
    }
    checkCode(fuzz::Input(input).number<std::uint32_t>());
    checkCode(fuzz::Input(input).number<std::uint32_t>() >> (size & 31U));
    checkUtf8(fuzz::Input(input).rest());
    checkUtf16(input);
    return 0;
}
