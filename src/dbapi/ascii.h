// Texts of plain ASCII, which most are.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

inline bool IsAscii(std::string_view text) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    const auto eight = [](const char* from) {
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, from, sizeof bytes);
        return bytes;
    };
    const char* at = text.data();
    const char* const end = at + text.size();
    for (; end - at >= 32; at += 32) {
        const std::uint64_t bytes = eight(at) | eight(at + 8) | eight(at + 16) | eight(at + 24);
        if ((bytes & kHighBits) != 0) return false;
    }
    std::uint64_t bytes = 0;
    for (; end - at >= 8; at += 8) bytes |= eight(at);
    // The last bytes, together with some that were looked at before.
    if (text.size() >= 8) return ((bytes | eight(end - 8)) & kHighBits) == 0;
    for (; at != end; ++at) bytes |= static_cast<unsigned char>(*at);
    return (bytes & kHighBits) == 0;
}
