// Texts in UTF-8 all of whose letters are those of Latin-1, as most texts in European languages
// are. Python keeps them as one byte a letter, and its own decoder goes through them letter by
// letter.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace latin1 {

// Bytes of ASCII that come next, of eight at most.
inline size_t PlainBytes(const char* at, const char* end) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    std::uint64_t bytes = kHighBits;
    if (end - at >= 8) {
        std::memcpy(&bytes, at, sizeof bytes);
    } else {
        std::memcpy(&bytes, at, static_cast<size_t>(end - at));
    }
    bytes &= kHighBits;
    constexpr bool kIsLittle = std::endian::native == std::endian::little;
    return static_cast<size_t>(kIsLittle ? std::countr_zero(bytes) : std::countl_zero(bytes)) / 8;
}

// The number of letters; nothing for a text with others, and for one that is no UTF-8.
inline std::optional<size_t> CountLetters(std::string_view text) {
    const char* at = text.data();
    const char* const end = at + text.size();
    size_t letters = text.size();
    while (at != end) {
        const size_t plain = PlainBytes(at, end);
        at += plain;
        if (plain == 8 || at == end) continue;
        // Two bytes for U+0080 to U+00FF: C2 or C3, and what continues them.
        const bool isLatin1 = end - at >= 2 && (at[0] & 0xFE) == 0xC2 && (at[1] & 0xC0) == 0x80;
        if (!isLatin1) return std::nullopt;
        --letters;
        at += 2;
    }
    return letters;
}

// Writes the letters of a text in which they were counted.
inline void Decode(std::string_view text, unsigned char* to) {
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end) {
        const size_t plain = PlainBytes(at, end);
        std::memcpy(to, at, plain);
        to += plain;
        at += plain;
        if (plain == 8 || at == end) continue;
        *to++ = static_cast<unsigned char>((at[0] & 0x03) << 6 | (at[1] & 0x3F));
        at += 2;
    }
}

}  // namespace latin1
