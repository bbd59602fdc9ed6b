// Text and number helpers on NUL-terminated 8-bit text. None of them looks at the process locale or
// sets errno; a letter is an ASCII letter only.
#pragma once

#include <cstddef>

#include "util/def.h"

/// Compares ignoring ASCII case; the difference of the first two folded bytes (as unsigned) that
/// differ, else 0.
VORDA_EXPORT int mystrcmpi(const char* a, const char* b);
/// The same over at most `n` bytes.
VORDA_EXPORT int mystrncmpi(const char* a, const char* b, std::size_t n);
/// The first place in `haystack` that equals `needle` ignoring ASCII case, or null. An empty
/// haystack contains nothing, not even an empty needle.
VORDA_EXPORT char* mystrstri(const char* haystack, const char* needle);

/// Optional sign, then decimal digits up to the first other character; no blanks are skipped. 0 for
/// null or without digits. Overflow wraps.
VORDA_EXPORT int myatoi(const char* text);
VORDA_EXPORT long myatol(const char* text);
VORDA_EXPORT long long myatoi64(const char* text);
/// The same with hexadecimal digits; no "0x" prefix is taken.
VORDA_EXPORT int myhextoi(const char* text);
VORDA_EXPORT long myhextol(const char* text);
VORDA_EXPORT long long myhextoi64(const char* text);

/// Writes `value` in decimal at `*ppOut`, padded on the left with `pad` to at least `width`
/// characters, and a NUL; `*ppOut` moves to that NUL. The caller provides the room.
VORDA_EXPORT void myutoa(char** ppOut, unsigned int value, int width, char pad);

/// Ends `str` at the first `delimiter` and returns what follows it, or the end of `str` when there
/// is none.
VORDA_EXPORT char* mystrtok(char* str, char delimiter);
/// Ends `str` at the first byte that is in `delimiters`, points `next` behind it and returns it;
/// when there is none, `next` is the end of `str` and the result 0.
VORDA_EXPORT char mystrtok2(char* str, const char* delimiters, char*& next);

VORDA_EXPORT int myisxdigit(char c);
VORDA_EXPORT int mypisdigit(char c);
/// Blank, TAB, LF and CR only.
VORDA_EXPORT int mypisspace(char c);

/// Decimal text to double after leading white space. The first 18 digits count. `endPtr`, unless
/// null, receives the end of what was read: `string` itself when there were no digits. An "e"
/// without digits is not read, and then the decimal point is not applied either ("1.5e" is 15). Too
/// large becomes infinity, too small 0, and 0 times an infinite power of ten NaN.
VORDA_EXPORT double mystrtod(const char* string, char** endPtr);
