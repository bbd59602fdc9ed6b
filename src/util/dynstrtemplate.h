// The module's one string type: a byte string that lives inside the object while it is short and on
// the heap when it is longer. Every record embeds its texts by value, so short ones cost nothing.
#pragma once

#include <algorithm>
#include <bit>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "util/core.h"
#include "util/def.h"

/// Writes `num` in plain signed decimal, NUL-terminated, into `buf` of `buflen` bytes. Returns the
/// number of characters, or 0 (and an empty text where there is room for one) when it does not fit.
VORDA_EXPORT int FormatInt64(char* buf, int buflen, long long num);

/// A growable byte string with `N` characters of inline room. The text is always NUL-terminated at
/// Length() and may hold NULs before it. Operations that allocate return VORDA_OK or
/// VORDA_OUT_OF_MEMORY, after which text and length are what they were; nothing throws. Source
/// texts may lie inside the string itself. Lengths are of type int: a longer source is cut to the
/// int value of its length, so whoever holds a text beyond INT_MAX bytes checks first.
template <int N>
class VORDA_EXPORT DynStrTemplate {
  public:
    DynStrTemplate() { m_DefBuffer[0] = '\0'; }
    ~DynStrTemplate() { std::free(m_lpBuffer); }
    // Not copyable: a copy can fail, and only Set can say so.
    DynStrTemplate(const DynStrTemplate&) = delete;
    DynStrTemplate& operator=(const DynStrTemplate&) = delete;

    /// The text; valid until the next operation that changes the string.
    char* Deref() { return m_lpBuffer != nullptr ? m_lpBuffer : m_DefBuffer; }
    const char* Deref() const { return m_lpBuffer != nullptr ? m_lpBuffer : m_DefBuffer; }
    /// The text from `pos` (0 to Length()) on.
    char* DerefFrom(int pos) { return Deref() + pos; }
    const char* DerefFrom(int pos) const { return Deref() + pos; }
    int Length() const { return m_Length; }
    /// Characters the present storage can hold: N while inline.
    int SpaceAvailable() const { return m_SpaceAvailable; }
    bool IsInline() const { return m_lpBuffer == nullptr; }

    /// Empties the string and returns its heap block.
    void Reset() { Resize(0, nullptr); }
    /// Sets the length; a negative one counts as 0. With `lpNewData` its first `len` bytes become
    /// the text; without, the text is cut, or extended by bytes of no particular value.
    int Resize(int len, const char* lpNewData);
    /// Replaces the text; null empties the string.
    int Set(const char* lpStr) { return Resize(lpStr != nullptr ? IntLength(lpStr) : 0, lpStr); }
    int Set(const char* lpStr, int len) { return Resize(len, lpStr); }
    int Append(const char* lpStr) { return lpStr != nullptr ? Append(lpStr, IntLength(lpStr)) : 0; }
    /// Appends `len64` bytes; nothing when `lpStr` is null or the length below 1.
    int Append(const char* lpStr, long long len64);
    int AppendInt(int val) { return AppendInt64(val); }
    int AppendInt64(long long val);
    /// Appends a plain decimal without exponent, at most 8 fraction digits, rounded half-up on the
    /// ninth. VORDA_NUMBER_OUT_OF_RANGE, with nothing appended, for NaN and beyond +-2^63.
    int AppendDouble(double doubleVal);

    bool StartsWith(const char* val) const {
        return std::strncmp(Deref(), val, std::strlen(val)) == 0;
    }
    bool Equals(const char* lpStr) const { return std::strcmp(Deref(), lpStr) == 0; }
    /// Equality that ignores the case of ASCII letters.
    bool EqualsNoCase(const char* lpStr) const { return mystrcmpi(Deref(), lpStr) == 0; }

  private:
    // The terminating NUL must be countable too.
    static constexpr int kMaxLength = INT_MAX - 1;

    static int IntLength(const char* text) { return static_cast<int>(std::strlen(text)); }
    static int FractionUnits(double value);
    void ShrinkInline(const char* source, int len);
    int Grow(int len, bool keepText, const char* lpNewData);
    void Terminate(int len) {
        Deref()[len] = '\0';
        m_Length = len;
    }

    char m_DefBuffer[N + 1];
    // Null exactly while the length is at most N; m_SpaceAvailable + 1 bytes long otherwise.
    char* m_lpBuffer = nullptr;
    int m_Length = 0;
    int m_SpaceAvailable = N;
};

template <int N>
int DynStrTemplate<N>::Resize(int len, const char* lpNewData) {
    const int n = std::max(len, 0);
    if (n > N && (m_lpBuffer == nullptr || n > m_SpaceAvailable)) {
        return Grow(n, lpNewData == nullptr, lpNewData);
    }
    if (n <= N && m_lpBuffer != nullptr) {
        ShrinkInline(lpNewData != nullptr ? lpNewData : m_lpBuffer, n);
    } else if (lpNewData != nullptr) {
        std::memmove(Deref(), lpNewData, static_cast<std::size_t>(n));
    }
    Terminate(n);
    return VORDA_OK;
}

template <int N>
void DynStrTemplate<N>::ShrinkInline(const char* source, int len) {
    std::memmove(m_DefBuffer, source, static_cast<std::size_t>(len));
    // The source may be the block itself, so it goes last.
    std::free(m_lpBuffer);
    m_lpBuffer = nullptr;
    m_SpaceAvailable = N;
}

// Moves the string to a heap block half as large again as `len` needs.
template <int N>
int DynStrTemplate<N>::Grow(int len, bool keepText, const char* lpNewData) {
    if (len > kMaxLength) return VORDA_OUT_OF_MEMORY;
    const int capacity = len / 2 > kMaxLength - len ? kMaxLength : len + len / 2;
    const std::size_t blockSize = static_cast<std::size_t>(capacity) + 1;
    if (keepText && m_lpBuffer != nullptr) {
        auto* block = static_cast<char*>(std::realloc(m_lpBuffer, blockSize));
        if (block == nullptr) return VORDA_OUT_OF_MEMORY;
        m_lpBuffer = block;
    } else {
        auto* block = static_cast<char*>(std::malloc(blockSize));
        if (block == nullptr) return VORDA_OUT_OF_MEMORY;
        std::memcpy(block, keepText ? m_DefBuffer : lpNewData,
                    static_cast<std::size_t>(keepText ? m_Length : len));
        // Freed only now: a failure must leave the old text, and the new data may lie in it.
        std::free(m_lpBuffer);
        m_lpBuffer = block;
    }
    m_SpaceAvailable = capacity;
    Terminate(len);
    return VORDA_OK;
}

template <int N>
int DynStrTemplate<N>::Append(const char* lpStr, long long len64) {
    const int len = static_cast<int>(len64);
    if (lpStr == nullptr || len < 1) return VORDA_OK;
    const int oldLength = m_Length;
    if (len > kMaxLength - oldLength) return VORDA_OUT_OF_MEMORY;
    // A source inside the string moves with it.
    const bool own = std::less_equal<>{}(static_cast<const char*>(Deref()), lpStr) &&
                     std::less_equal<>{}(lpStr, static_cast<const char*>(Deref() + oldLength));
    const std::ptrdiff_t offset = own ? lpStr - Deref() : 0;
    if (const int status = Resize(oldLength + len, nullptr); status != VORDA_OK) return status;
    std::memmove(DerefFrom(oldLength), own ? Deref() + offset : lpStr,
                 static_cast<std::size_t>(len));
    return VORDA_OK;
}

template <int N>
int DynStrTemplate<N>::AppendInt64(long long val) {
    char text[40];
    return Append(text, FormatInt64(text, sizeof text, val));
}

// The fraction of `value` in units of 10^-8, rounded half-up on the ninth digit: 100000000 stands
// for a carry into the integer part. Bit 0 of the mantissa is never looked at.
template <int N>
int DynStrTemplate<N>::FractionUnits(double value) {
    const auto bits = std::bit_cast<std::uint64_t>(value);
    const int exponent = static_cast<int>(bits >> 52 & 0x7FF);
    if (exponent == 0) return 0;
    const std::uint64_t mantissa = (bits & ((1ULL << 52) - 1)) | 1ULL << 52;
    double sum = 0.0;
    // Bit k of the mantissa weighs 2^-place; bits past place 63 cannot reach the ninth digit.
    for (int place = 1; place <= 63; ++place) {
        const int k = 1075 - exponent - place;
        if (k < 1) break;
        if (k <= 52 && (mantissa >> k & 1) != 0) sum += std::ldexp(1000000000.0, -place);
    }
    const int nineDigits = static_cast<int>(sum);
    return nineDigits / 10 + (nineDigits % 10 > 4 ? 1 : 0);
}

template <int N>
int DynStrTemplate<N>::AppendDouble(double doubleVal) {
    constexpr double kTwo52 = 4503599627370496.0;
    constexpr double kTwo63 = 9223372036854775808.0;
    // Written so that NaN fails too.
    if (!(doubleVal >= -kTwo63 && doubleVal <= kTwo63)) return VORDA_NUMBER_OUT_OF_RANGE;
    if (std::fabs(doubleVal) >= kTwo52) {
        // No fraction bits are left, and +2^63 itself fits no signed 64-bit integer.
        char whole[32];
        const auto end =
            std::to_chars(whole, whole + sizeof whole, doubleVal, std::chars_format::fixed, 0);
        return Append(whole, end.ptr - whole);
    }

    int fraction = FractionUnits(doubleVal);
    auto integer = static_cast<long long>(doubleVal);
    if (integer == 0 && doubleVal < 0.0) {
        if (const int status = Append("-", 1); status != VORDA_OK) return status;
    }
    if (fraction >= 100000000) {
        fraction = 0;
        // Rounding up from an integer part of 0 goes to -1: readers of this format expect it so.
        integer += integer > 0 ? 1 : -1;
    }
    if (const int status = AppendInt64(integer); status != VORDA_OK) return status;
    if (fraction == 0) return VORDA_OK;

    char text[] = ".00000000";
    for (char* place = text + 8; place > text; --place, fraction /= 10) {
        *place = static_cast<char>('0' + fraction % 10);
    }
    int length = 9;
    while (text[length - 1] == '0') --length;
    return Append(text, length);
}

extern template class DynStrTemplate<99>;
