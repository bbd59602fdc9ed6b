#include "odbc/utf16.h"

#include <algorithm>
#include <cstddef>
#include <optional>

#include "core/error.h"

namespace embedded {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kFirstSupplementary = 0x10000;
constexpr char32_t kLast = 0x10FFFF;

bool isAscii(SQLWCHAR c) noexcept {
    return c < 0x80;
}

bool isSurrogate(char32_t c) noexcept {
    return c >= 0xD800 && c <= 0xDFFF;
}

/// Takes one character off the front of `text`, which is not empty.
std::optional<char32_t> takeUtf8(std::string_view& text) noexcept {
    const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = byte(0);
    size_t length = 1;
    char32_t value = first;
    char32_t least = 0;
    if (first >= 0xF0 && first <= 0xF4) {
        length = 4, value = first & 0x07U, least = kFirstSupplementary;
    } else if (first >= 0xE0 && first < 0xF0) {
        length = 3, value = first & 0x0FU, least = 0x800;
    } else if (first >= 0xC2 && first < 0xE0) {
        length = 2, value = first & 0x1FU, least = 0x80;
    } else if (first >= 0x80) {
        return std::nullopt;
    }
    if (length > text.size()) return std::nullopt;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80U) return std::nullopt;
        value = value << 6U | (byte(i) & 0x3FU);
    }
    if (value < least || value > kLast || isSurrogate(value)) return std::nullopt;
    text.remove_prefix(length);
    return value;
}

void putUtf8(char32_t c, std::string& out) {
    const auto put = [&out](char32_t byte) { out += static_cast<char>(byte); };
    if (c < 0x80) {
        put(c);
    } else if (c < 0x800) {
        put(0xC0 | c >> 6U);
        put(0x80 | (c & 0x3F));
    } else if (c < kFirstSupplementary) {
        put(0xE0 | c >> 12U);
        put(0x80 | (c >> 6U & 0x3F));
        put(0x80 | (c & 0x3F));
    } else {
        put(0xF0 | c >> 18U);
        put(0x80 | (c >> 12U & 0x3F));
        put(0x80 | (c >> 6U & 0x3F));
        put(0x80 | (c & 0x3F));
    }
}

/// Appends `text` as UTF-8; false when a surrogate stands alone and `replacement` is 0.
bool convert(const SQLWCHAR* text, size_t length, char32_t replacement, std::string& out) {
    for (size_t i = 0; i < length; ++i) {
        const SQLWCHAR* const other = std::find_if_not(text + i, text + length, isAscii);
        const size_t filled = out.size();
        out.resize(filled + static_cast<size_t>(other - (text + i)));
        std::transform(text + i, other, out.begin() + static_cast<std::ptrdiff_t>(filled),
                       [](SQLWCHAR ascii) { return static_cast<char>(ascii); });
        i = static_cast<size_t>(other - text);
        if (i == length) break;
        char32_t c = text[i];
        if (isSurrogate(c)) {
            const bool paired =
                c < 0xDC00 && i + 1 < length && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
            if (paired) {
                c = kFirstSupplementary + ((c - 0xD800) << 10U) + (text[++i] - 0xDC00U);
            } else if (replacement) {
                c = replacement;
            } else {
                return false;
            }
        }
        putUtf8(c, out);
    }
    return true;
}

}  // namespace

void requireUtf8(std::string_view text, const char* message) {
    while (!text.empty()) {
        if (!takeUtf8(text)) throw Error("22021", message, native::kMismatch);
    }
}

void appendWide(std::string_view text, WideText& wide) {
    wide.reserve(wide.size() + text.size() + 1);
    while (!text.empty()) {
        const auto c = takeUtf8(text);
        if (!c) throw Error("22021", kNotUtf8, native::kMismatch);
        if (*c < kFirstSupplementary) {
            wide.push_back(static_cast<SQLWCHAR>(*c));
        } else {
            const char32_t rest = *c - kFirstSupplementary;
            wide.push_back(static_cast<SQLWCHAR>(0xD800 + (rest >> 10U)));
            wide.push_back(static_cast<SQLWCHAR>(0xDC00 + (rest & 0x3FF)));
        }
    }
}

void refuseNul(std::string_view text, const char* what) {
    if (text.find('\0') == std::string_view::npos) return;
    throw Error("42000", std::string("The ") + what + " contains a NUL character.");
}

WideText wideText(std::string_view text) {
    WideText wide;
    appendWide(text, wide);
    wide.push_back(0);
    // MariaDB's driver takes U+00D8 to U+00DB for two units each, and reads so far behind the end:
    // there have to be zeros.
    const size_t size = wide.size();
    wide.resize(size + static_cast<size_t>(std::count_if(wide.begin(), wide.end(), [](SQLWCHAR c) {
                    return (c & 0xFCU) == 0xD8 || (c & 0xFC00U) == 0xD800;
                })));
    wide.resize(size);
    return wide;
}

void appendNarrow(const SQLWCHAR* text, size_t length, std::string& narrow) {
    if (!convert(text, length, 0, narrow)) {
        throw Error("22021", "The driver delivered a text that is not UTF-16.", native::kMismatch);
    }
}

std::string narrowText(const SQLWCHAR* text, size_t length) {
    std::string narrow;
    appendNarrow(text, length, narrow);
    return narrow;
}

std::string readableText(const SQLWCHAR* text, size_t length) {
    std::string narrow;
    convert(text, length, kReplacement, narrow);
    return narrow;
}

}  // namespace embedded
