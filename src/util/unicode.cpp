#include "include/unicode.h"

namespace {

struct Utf8Form {
    unsigned int limit;  // code points below it, and not below the previous one's, take this form
    unsigned int lead;   // marks the lead byte; larger with every form
};
// Row i is the form of i + 1 bytes.
constexpr Utf8Form kUtf8Forms[] = {{0x80, 0x00},     {0x800, 0xC0},     {0x10000, 0xE0},
                                   {0x200000, 0xF0}, {0x4000000, 0xF8}, {0x80000000, 0xFC}};

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

}  // namespace

int ucs2_to_ucs4(unsigned short* in, unsigned int& out) {
    const unsigned int u = in[0];
    if (u < 0xD800 || u > 0xDFFF) {
        out = u;
        return 1;
    }
    if (u > 0xDBFF) return 0;
    const unsigned int v = in[1];
    if (v < 0xDC00 || v > 0xDFFF) return 0;
    out = (v & 0x3FF) + (((v & 0x3FF) + 0x40) << 10);
    return 2;
}

int ucs4_to_ucs2(unsigned int c, unsigned short* out) {
    if (c >= 0xF0000) return 0;
    if (c < 0x10000) {
        if (out != nullptr) out[0] = static_cast<unsigned short>(c);
        return 1;
    }
    if (out != nullptr) {
        out[0] = static_cast<unsigned short>((c >> 10) + 0xD7C0);
        out[1] = static_cast<unsigned short>((c & 0x3FF) + 0xDC00);
    }
    return 2;
}

int ucs4_to_utf8(unsigned int c, char* out) {
    int length = 0;
    for (const Utf8Form& form : kUtf8Forms) {
        ++length;
        if (c >= form.limit) continue;
        if (out != nullptr) {
            for (int i = length - 1; i > 0; --i, c >>= 6) {
                out[i] = static_cast<char>(0x80 | (c & 0x3F));
            }
            out[0] = static_cast<char>(form.lead | c);
        }
        return length;
    }
    return 0;
}

int ucs2_to_utf8(unsigned short* in, char* out) {
    unsigned int c = 0;
    return ucs2_to_ucs4(in, c) != 0 ? ucs4_to_utf8(c, out) : 0;
}

int utf8_to_usc4(char* in, unsigned int& out) {
    const unsigned int lead = static_cast<unsigned char>(*in);
    if (lead < 0x80) {
        out = lead;
        return 1;
    }
    if (lead < 0xC0 || lead > 0xFD) return 0;
    int length = 2;
    while (length < 6 && lead >= kUtf8Forms[length].lead) ++length;
    // The payload is what the next longer form's mark leaves free.
    out = lead & ((1U << (7 - length)) - 1);
    for (int i = 1; i < length && IsContinuation(in[i]); ++i) {
        out = out * 64 + (static_cast<unsigned char>(in[i]) & 0x3F);
    }
    return length;
}

int utf8string_to_utf16string(char* in, unsigned short* out) {
    int total = 0;
    while (*in != '\0') {
        unsigned int c = 0;
        const int read = utf8_to_usc4(in, c);
        const int written = read != 0 ? ucs4_to_ucs2(c, out) : 0;
        if (written == 0) return 0;
        // Byte by byte: a sequence that is cut short announces more than the text holds.
        for (int i = 0; i < read && *in != '\0'; ++i) ++in;
        out += written;
        total += written;
    }
    // Only the single code points take a null `out`.
    *out = 0;  // NOLINT(clang-analyzer-core.NullDereference)
    return total;
}

int utf16string_to_utf8string(unsigned short* in, char* out) {
    int total = 0;
    while (*in != 0) {
        unsigned int c = 0;
        const int read = ucs2_to_ucs4(in, c);
        const int written = read != 0 ? ucs4_to_utf8(c, out) : 0;
        if (written == 0) return 0;
        in += read;
        out += written;
        total += written;
    }
    *out = '\0';  // NOLINT(clang-analyzer-core.NullDereference)
    return total;
}
