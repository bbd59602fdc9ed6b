#include "values/temporal.h"

#include <cstdio>

#include "values/text.h"

namespace embedded {
namespace {

constexpr std::uint32_t kNanosecondsPerSecond = 1'000'000'000;

/// Takes exactly `digits` digits off the front of `text`.
bool takeDigits(std::string_view& text, size_t digits, int& out) noexcept {
    if (text.size() < digits) return false;
    int value = 0;
    for (size_t i = 0; i < digits; ++i) {
        if (!isDigit(text[i])) return false;
        value = value * 10 + (text[i] - '0');
    }
    text.remove_prefix(digits);
    out = value;
    return true;
}

bool takeChar(std::string_view& text, char c) noexcept {
    if (!text.starts_with(c)) return false;
    text.remove_prefix(1);
    return true;
}

bool takeDate(std::string_view& text, DateTime& out) noexcept {
    return takeDigits(text, 4, out.year) && takeChar(text, '-') && takeDigits(text, 2, out.month) &&
           takeChar(text, '-') && takeDigits(text, 2, out.day) && isValidDate(out);
}

bool takeFraction(std::string_view& text, std::uint32_t& nanosecond) noexcept {
    size_t digits = 0;
    std::uint32_t weight = kNanosecondsPerSecond;
    while (digits < text.size() && isDigit(text[digits])) {
        weight /= 10;
        const auto digit = static_cast<std::uint32_t>(text[digits] - '0');
        if (weight == 0 && digit != 0) return false;
        nanosecond += digit * weight;
        ++digits;
    }
    text.remove_prefix(digits);
    return digits > 0;
}

bool takeTime(std::string_view& text, DateTime& out) noexcept {
    if (!takeDigits(text, 2, out.hour) || !takeChar(text, ':') ||
        !takeDigits(text, 2, out.minute)) {
        return false;
    }
    if (takeChar(text, ':')) {
        if (!takeDigits(text, 2, out.second)) return false;
        if (takeChar(text, '.') && !takeFraction(text, out.nanosecond)) return false;
    }
    return isValidTime(out);
}

template <class... Args>
std::string print(const char* format, Args... args) {
    char buffer[40];
    const int length = std::snprintf(buffer, sizeof buffer, format, args...);
    return {buffer, static_cast<size_t>(length)};
}

}  // namespace

bool isValidDate(const DateTime& value) noexcept {
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (value.year < 1 || value.year > 9999 || value.month < 1 || value.month > 12) return false;
    const bool leap = value.year % 4 == 0 && (value.year % 100 != 0 || value.year % 400 == 0);
    const int days = kDays[value.month - 1] + (value.month == 2 && leap ? 1 : 0);
    return value.day >= 1 && value.day <= days;
}

bool isValidTime(const DateTime& value) noexcept {
    return value.hour >= 0 && value.hour <= 23 && value.minute >= 0 && value.minute <= 59 &&
           value.second >= 0 && value.second <= 59 && value.nanosecond < kNanosecondsPerSecond;
}

std::optional<Temporal> parseTemporal(std::string_view text) noexcept {
    Temporal result{TemporalShape::Time, {}};
    if (text.size() > 4 && text[4] == '-') {
        if (!takeDate(text, result.value)) return std::nullopt;
        result.shape = TemporalShape::Date;
        if (text.empty()) return result;
        if (!takeChar(text, ' ') && !takeChar(text, 'T')) return std::nullopt;
        result.shape = TemporalShape::Both;
    }
    if (!takeTime(text, result.value) || !text.empty()) return std::nullopt;
    return result;
}

std::string formatDate(const DateTime& value) {
    return print("%04d-%02d-%02d", value.year, value.month, value.day);
}

std::string formatTime(const DateTime& value) {
    std::string text = print("%02d:%02d:%02d", value.hour, value.minute, value.second);
    if (value.nanosecond % 1000 != 0) {
        text += print(".%09u", value.nanosecond);
    } else if (value.nanosecond != 0) {
        text += print(".%06u", value.nanosecond / 1000);
    }
    return text;
}

std::string formatDateTime(const DateTime& value) {
    return formatDate(value) + " " + formatTime(value);
}

std::string formatTemporal(const Temporal& temporal) {
    switch (temporal.shape) {
        case TemporalShape::Date:
            return formatDate(temporal.value);
        case TemporalShape::Time:
            return formatTime(temporal.value);
        default:
            return formatDateTime(temporal.value);
    }
}

}  // namespace embedded
