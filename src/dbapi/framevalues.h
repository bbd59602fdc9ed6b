// Dates, times, decimals and texts as Arrow has them, from those of ODBC and back. What has no
// counterpart is thrown as a Failure of class 22. Needs no interpreter lock.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "dbapi/failure.h"

// What decimals of 128 and of 256 bits hold for sure.
constexpr int kDigitsOf128 = 38;
constexpr int kDigitsOf256 = 76;

// Days since 1970.
std::int32_t DaysOf(const SQL_TIMESTAMP_STRUCT& day);
// Microseconds since midnight.
std::int64_t MicrosecondsOf(const SQL_TIMESTAMP_STRUCT& time);
// Of the years 1 to 9999.
SQL_DATE_STRUCT DayOf(std::int64_t days);
SQL_TIMESTAMP_STRUCT StampOf(std::int64_t microseconds);

// A number of 256 bits, the lowest first; negative ones as two's complement.
struct Wide {
    std::array<std::uint64_t, 4> words;

    void MultiplyAndAdd(std::uint64_t factor, std::uint64_t carry);
    void Negate();
    bool IsNegative() const { return words.back() >> 63U != 0; }
};

// The digits of a decimal, without zeros at either end.
struct Digits {
    bool isNegative;
    std::string_view whole;
    std::string_view fraction;
};
Digits TakeApart(std::string_view decimal);
// With so many digits behind the point, which must be enough.
Wide NumberOf(const Digits& digits, int scale);
std::string TextOf(Wide number, int scale);

bool IsUtf8(std::string_view text);
