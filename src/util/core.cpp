#include "util/core.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <type_traits>

namespace {

const double powersOf10[9] = {10,     100,    1.0e4,   1.0e8,  1.0e16,
                              1.0e32, 1.0e64, 1.0e128, 1.0e256};  // 10^(2^i)
const int maxExponent = 511;

int Fold(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 'A' && byte <= 'Z' ? byte - 'A' + 'a' : byte;
}

// The value of a hexadecimal digit, or -1.
int DigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const int folded = Fold(c);
    return folded >= 'a' && folded <= 'f' ? folded - 'a' + 10 : -1;
}

template <typename Int>
Int ParseInteger(const char* text, int base) {
    // Unsigned arithmetic, so that overflow wraps.
    using Unsigned = std::make_unsigned_t<Int>;
    if (text == nullptr) return 0;
    const bool negative = *text == '-';
    if (negative || *text == '+') ++text;
    Unsigned value = 0;
    for (int digit; (digit = DigitValue(*text)) >= 0 && digit < base; ++text) {
        value = value * static_cast<Unsigned>(base) + static_cast<Unsigned>(digit);
    }
    return static_cast<Int>(negative ? Unsigned{0} - value : value);
}

}  // namespace

int mystrcmpi(const char* a, const char* b) {
    return mystrncmpi(a, b, static_cast<std::size_t>(-1));
}

int mystrncmpi(const char* a, const char* b, std::size_t n) {
    for (; n > 0; --n, ++a, ++b) {
        const int difference = Fold(*a) - Fold(*b);
        if (difference != 0 || *a == '\0') return difference;
    }
    return 0;
}

char* mystrstri(const char* haystack, const char* needle) {
    const std::size_t length = std::strlen(needle);
    for (; *haystack != '\0'; ++haystack) {
        if (mystrncmpi(haystack, needle, length) == 0) return const_cast<char*>(haystack);
    }
    return nullptr;
}

int myatoi(const char* text) {
    return ParseInteger<int>(text, 10);
}
long myatol(const char* text) {
    return ParseInteger<long>(text, 10);
}
long long myatoi64(const char* text) {
    return ParseInteger<long long>(text, 10);
}
int myhextoi(const char* text) {
    return ParseInteger<int>(text, 16);
}
long myhextol(const char* text) {
    return ParseInteger<long>(text, 16);
}
long long myhextoi64(const char* text) {
    return ParseInteger<long long>(text, 16);
}

void myutoa(char** ppOut, unsigned int value, int width, char pad) {
    char digits[16];
    const auto length = std::to_chars(digits, digits + sizeof digits, value).ptr - digits;
    char* out = *ppOut;
    if (width > length) out = std::fill_n(out, width - length, pad);
    out = std::copy_n(digits, length, out);
    *out = '\0';
    *ppOut = out;
}

char* mystrtok(char* str, char delimiter) {
    char* const end = str + std::strlen(str);
    char* const found = std::find(str, end, delimiter);
    if (found == end) return end;
    *found = '\0';
    return found + 1;
}

char mystrtok2(char* str, const char* delimiters, char*& next) {
    char* const found = str + std::strcspn(str, delimiters);
    const char delimiter = *found;
    next = found;
    if (delimiter != '\0') *next++ = '\0';
    return delimiter;
}

int myisxdigit(char c) {
    return DigitValue(c) >= 0;
}
int mypisdigit(char c) {
    return c >= '0' && c <= '9';
}
int mypisspace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

double mystrtod(const char* string, char** endPtr) {
    const char* p = string;
    while (mypisspace(*p)) ++p;
    const bool negative = *p == '-';
    if (negative || *p == '+') ++p;

    // The number is its digits, without the point, times 10^fracExp.
    const char* digit = p;
    std::ptrdiff_t mantSize = 0;
    std::ptrdiff_t decPt = -1;
    for (; mypisdigit(*p) || (*p == '.' && decPt < 0); ++p) {
        if (*p == '.') {
            decPt = mantSize;
        } else {
            ++mantSize;
        }
    }
    if (decPt < 0) decPt = mantSize;
    std::ptrdiff_t fracExp = decPt - std::min<std::ptrdiff_t>(mantSize, 18);
    mantSize = std::min<std::ptrdiff_t>(mantSize, 18);

    double fraction = 0.0;
    if (mantSize == 0) {
        p = string;
    } else {
        int frac1 = 0;
        int frac2 = 0;
        for (std::ptrdiff_t left = mantSize; left > 0; ++digit) {
            if (*digit == '.') continue;
            int& part = left > 9 ? frac1 : frac2;
            part = part * 10 + (*digit - '0');
            --left;
        }
        fraction = 1.0e9 * frac1 + frac2;

        bool scaled = true;
        if (*p == 'E' || *p == 'e') {
            const char* e = p + 1;
            const bool negativeExp = *e == '-';
            if (negativeExp || *e == '+') ++e;
            scaled = mypisdigit(*e);
            std::ptrdiff_t exponent = 0;
            for (; mypisdigit(*e); ++e, p = e) {
                // Saturates far beyond any text's length: more digits change nothing.
                exponent = std::min<std::ptrdiff_t>(exponent * 10 + (*e - '0'), 1'000'000'000'000);
            }
            fracExp += negativeExp ? -exponent : exponent;
        }
        if (scaled) {
            const auto magnitude =
                std::min<std::ptrdiff_t>(fracExp < 0 ? -fracExp : fracExp, maxExponent);
            double dblExp = 1.0;
            for (int i = 0; i < 9; ++i) {
                if ((magnitude >> i & 1) != 0) dblExp *= powersOf10[i];
            }
            fraction = fracExp < 0 ? fraction / dblExp : fraction * dblExp;
        }
    }
    if (endPtr != nullptr) *endPtr = const_cast<char*>(p);
    return negative ? -fraction : fraction;
}
