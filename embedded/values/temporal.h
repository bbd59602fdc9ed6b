#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace embedded {

/// A date, a time of day, or both.
struct DateTime {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    std::uint32_t nanosecond = 0;

    bool hasTimeOfDay() const noexcept { return hour || minute || second || nanosecond; }
};

/// Proleptic Gregorian, years 1 to 9999.
bool isValidDate(const DateTime& value) noexcept;
bool isValidTime(const DateTime& value) noexcept;

/// What an ISO 8601 text turned out to hold.
enum class TemporalShape { Date, Time, Both };

struct Temporal {
    TemporalShape shape;
    DateTime value;
};

/// Reads "YYYY-MM-DD", "HH:MM[:SS[.fraction]]", or both with a blank or a T between them. Fractions
/// may have any number of digits as long as those behind the ninth are zeros. Everything else, an
/// offset from UTC included, is no temporal text.
std::optional<Temporal> parseTemporal(std::string_view text) noexcept;

/// The texts under which dates and times are stored: no fraction when it is zero, six digits when
/// those are enough, else nine.
std::string formatDate(const DateTime& value);
std::string formatTime(const DateTime& value);
std::string formatDateTime(const DateTime& value);
std::string formatTemporal(const Temporal& temporal);

}  // namespace embedded
