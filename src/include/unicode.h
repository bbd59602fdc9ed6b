// Conversions between UTF-16 (units in `unsigned short`), 32-bit code points and UTF-8. They check
// no room: four bytes of UTF-8 per UTF-16 unit plus one, or two units per UTF-8 byte plus one,
// always suffice. An error is a result of 0. Two oddities are part of the interface: how surrogate
// pairs decode, and that nothing from U+F0000 on is encoded as a pair. Text that must arrive
// unaltered is therefore never sent through them.
#pragma once

#include "util/def.h"

/// Decodes one code point; returns the units read (1 or 2). Both halves of a pair's code point come
/// from its low surrogate: 0xD83D 0xDE00 decodes to 0x90200.
VORDA_EXPORT int ucs2_to_ucs4(unsigned short* in, unsigned int& out);
/// Encodes one code point below 0xF0000, surrogates included; returns the units (1 or 2). `out` may
/// be null to ask for the length.
VORDA_EXPORT int ucs4_to_ucs2(unsigned int c, unsigned short* out);
/// Encodes one code point below 0x80000000 in 1 to 6 bytes, without a NUL; returns the bytes. `out`
/// may be null to ask for the length.
VORDA_EXPORT int ucs4_to_utf8(unsigned int c, char* out);
/// ucs2_to_ucs4, then ucs4_to_utf8; returns the bytes written.
VORDA_EXPORT int ucs2_to_utf8(unsigned short* in, char* out);
/// Decodes one code point; returns the length that the lead byte announces (1 to 6), also when the
/// sequence breaks off earlier: `out` then holds what was gathered. Never reads past a NUL.
VORDA_EXPORT int utf8_to_usc4(char* in, unsigned int& out);
/// Converts a NUL-terminated text; returns the units without the terminating 0. On an error the
/// output is left unterminated. Never reads past the NUL.
VORDA_EXPORT int utf8string_to_utf16string(char* in, unsigned short* out);
/// The reverse; returns the bytes without the NUL.
VORDA_EXPORT int utf16string_to_utf8string(unsigned short* in, char* out);

// The exported signatures are older than the rule that what is only read is const; these overloads
// keep it.
inline int ucs2_to_ucs4(const unsigned short* in, unsigned int& out) {
    return ucs2_to_ucs4(const_cast<unsigned short*>(in), out);
}
inline int ucs2_to_utf8(const unsigned short* in, char* out) {
    return ucs2_to_utf8(const_cast<unsigned short*>(in), out);
}
inline int utf8_to_usc4(const char* in, unsigned int& out) {
    return utf8_to_usc4(const_cast<char*>(in), out);
}
inline int utf8string_to_utf16string(const char* in, unsigned short* out) {
    return utf8string_to_utf16string(const_cast<char*>(in), out);
}
inline int utf16string_to_utf8string(const unsigned short* in, char* out) {
    return utf16string_to_utf8string(const_cast<unsigned short*>(in), out);
}
