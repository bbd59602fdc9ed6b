// One column's value in the current row, the only way in which values are read: the C interface's
// typed getters stand on it, and the readers that make Python objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// A date, a time or both, as the columns of all three are bound.
struct DbMoment {
    std::int16_t Year;
    std::uint16_t Month, Day, Hour, Minute, Second;
    std::uint32_t Fraction;  // nanoseconds, of an honest provider
};

// How much of a text or binary value its buffer really holds.
struct DbExtent {
    int Length;          // bytes in the buffer that belong to the value
    bool IsTruncated;    // the provider had more than the buffer could take
    long long Reported;  // the provider's own length, negative when it does not know it
};

// Where every fetch leaves the value of a column. The addresses belong to the result set and stay
// the same until it ends; a failed fetch leaves nothing to read.
struct _db_cell_ {
    int DataType;  // the DB type code, which tells what Value points to
    int Scale;
    const void* Value;             // of a fixed-size column: a number, or a DbMoment
    const char* Text;              // of a text or binary column
    int Size;                      // of the buffer at Text; 0 for other columns
    bool IsText;                   // a byte of the buffer is the terminator's
    const std::ptrdiff_t* Length;  // the provider's, never to be trusted but for kNull

    static constexpr std::ptrdiff_t kNull = -1;

    bool IsNull() const { return *Length == kNull; }
    template <class T>
    T As() const {
        T value;
        std::memcpy(&value, Value, sizeof value);
        return value;
    }
    // Whether the text is certainly whole: its length leaves room for the terminator.
    bool IsWholeText() const {
        return static_cast<std::size_t>(*Length) < static_cast<std::size_t>(IsText ? Size : 0);
    }
    // What became of a value that may have been longer than its buffer. Not for NULL.
    DbExtent Extent() const;
    // The fraction of a second. A provider that reports no fraction digits counts in a unit of its
    // own: its number is shortened to six digits.
    int Microseconds(const DbMoment& moment) const {
        auto fraction = static_cast<int>(moment.Fraction);
        if (Scale > 0) return fraction / 1000;
        while (fraction > 999'999) fraction /= 10;
        return fraction;
    }
};
using DbCell = _db_cell_;
