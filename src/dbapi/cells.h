// What a cell holds, and reading one on its own.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "dbapi/failure.h"

// The runtime's C type for a cell of any kind: a tag, which is the kind in 32 bits and 32 more, and
// behind it the value. The runtime's length indicator counts the value alone.
constexpr SQLSMALLINT kCellCType = 0x4001;
constexpr size_t kCellTag = 8;

enum class CellKind : std::int32_t {
    Null = 0,
    Integer = 1,  // 64 bits
    Real = 2,     // a double
    Text = 3,     // UTF-8
    Blob = 4,
    Decimal = 5,  // digits
    Date = 6,     // this and the next two as SQL_TIMESTAMP_STRUCT
    Time = 7,
    Timestamp = 8,
    Boolean = 9,  // an integer
};

// Whether values of a column of this type have any length.
bool HasAnyLength(SQLSMALLINT sqlType);

// What its cells are, if they do not tell.
CellKind KindOf(SQLSMALLINT sqlType);

// A cell's value of fixed size; throws when the runtime gave fewer bytes.
template <class T>
T Load(std::string_view bytes) {
    T value{};
    if (bytes.size() < sizeof value) throw Failure("HY000", "the runtime's value is too short");
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

// Reads a value in standard pieces by its column's type. Needs no interpreter lock.
CellKind ReadStandard(SQLHSTMT statement, SQLUSMALLINT column, SQLSMALLINT sqlType,
                      std::string& bytes);
// Reads a value of which the runtime has told the length.
void ReadWhole(SQLHSTMT statement, SQLUSMALLINT column, size_t length, std::string& bytes);
