#include "include/cell.h"

#include <cstring>

namespace {

// The length up to the end of the last whole UTF-8 character in the first `length` bytes. Text that
// is not UTF-8 at its end is left as it is: then there is no character to keep whole.
int WholeCharacters(const char* text, int length) {
    int start = length;
    while (start > 0 && length - start < 4) {
        --start;
        const auto byte = static_cast<unsigned char>(text[start]);
        if (byte < 0x80) return length;
        if (byte >= 0xC0) {
            const int size = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
            return length - start < size ? start : length;
        }
    }
    return length;
}

}  // namespace

DbExtent _db_cell_::Extent() const {
    const std::ptrdiff_t reported = *Length;
    // A text needs a byte more than its length; a fixed-size column has no buffer at all.
    const int room = IsText ? Size - 1 : Size;
    if (reported >= 0 && reported <= room) return {static_cast<int>(reported), false, reported};
    if (Size == 0) return {0, false, reported};
    if (!IsText) return {Size, true, reported};
    if (reported < 0) {
        // The provider does not know how long the value is; what it wrote ends with a NUL. It may
        // have cut the value where the buffer is full but for less than a character.
        const int length = static_cast<int>(strnlen(Text, static_cast<std::size_t>(Size)));
        return {WholeCharacters(Text, length), length > Size - 5, reported};
    }
    // Providers cut at a whole character or anywhere; the terminator is within the last four bytes.
    // Looking only there keeps NULs inside the value.
    const int tail = Size - 4;
    int length = tail + static_cast<int>(strnlen(Text + tail, 4));
    while (length > 0 && Text[length - 1] == '\0') --length;
    return {WholeCharacters(Text, length), true, reported};
}
