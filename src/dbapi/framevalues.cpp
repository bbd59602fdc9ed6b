#include "dbapi/framevalues.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::int64_t kMicrosecondsPerDay = 86400000000;
constexpr unsigned kNanosecondsPerMicrosecond = 1000;
constexpr std::int32_t kDaysPerEra = 146097;      // of 400 years
constexpr std::int32_t kDaysBefore1970 = 719468;  // since the 1st of March of the year 0

}  // namespace

std::int32_t DaysOf(const SQL_TIMESTAMP_STRUCT& day) {
    constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool isLeap = (day.year % 4 == 0 && day.year % 100 != 0) || day.year % 400 == 0;
    const bool isMonth = day.month >= 1 && day.month <= 12;
    if (!isMonth || day.day < 1 ||
        day.day > kDays[day.month - 1] + (isLeap && day.month == 2 ? 1U : 0U))
        throw Failure("22007", "there is no such date");
    // Years begin with March, so that a leap day is the last; eras have 400 of them.
    const int year = day.year - (day.month <= 2 ? 1 : 0);
    const int era = (year >= 0 ? year : year - 399) / 400;
    const int yearOfEra = year - era * 400;
    const int dayOfYear = (153 * (day.month + (day.month > 2 ? -3 : 9)) + 2) / 5 + day.day - 1;
    return era * kDaysPerEra + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear -
           kDaysBefore1970;
}

std::int64_t MicrosecondsOf(const SQL_TIMESTAMP_STRUCT& time) {
    if (time.hour > 23 || time.minute > 59 || time.second > 59 || time.fraction > 999999999)
        throw Failure("22007", "there is no such time");
    if (time.fraction % kNanosecondsPerMicrosecond != 0)
        throw Failure("22008", "the time has fractions of microseconds");
    const int seconds = (time.hour * 60 + time.minute) * 60 + time.second;
    return std::int64_t{seconds} * 1000000 + time.fraction / kNanosecondsPerMicrosecond;
}

SQL_DATE_STRUCT DayOf(std::int64_t days) {
    constexpr std::int64_t kFirst = -719162;
    constexpr std::int64_t kLast = 2932896;
    if (days < kFirst || days > kLast)
        throw Failure("22008", "the date is not in the years 1 to 9999");
    const std::int64_t shifted = days + kDaysBefore1970;
    const std::int64_t era = shifted / kDaysPerEra;
    const std::int64_t day = shifted - era * kDaysPerEra;
    const std::int64_t year = (day - day / 1460 + day / 36524 - day / 146096) / 365;
    const std::int64_t dayOfYear = day - (365 * year + year / 4 - year / 100);
    const std::int64_t month = (5 * dayOfYear + 2) / 153;
    return {static_cast<SQLSMALLINT>(year + era * 400 + (month < 10 ? 0 : 1)),
            static_cast<SQLUSMALLINT>(month + (month < 10 ? 3 : -9)),
            static_cast<SQLUSMALLINT>(dayOfYear - (153 * month + 2) / 5 + 1)};
}

SQL_TIMESTAMP_STRUCT StampOf(std::int64_t microseconds) {
    const std::int64_t days =
        microseconds / kMicrosecondsPerDay - (microseconds % kMicrosecondsPerDay < 0 ? 1 : 0);
    const std::int64_t time = microseconds - days * kMicrosecondsPerDay;
    const std::int64_t seconds = time / 1000000;
    const SQL_DATE_STRUCT day = DayOf(days);
    return {day.year,
            day.month,
            day.day,
            static_cast<SQLUSMALLINT>(seconds / 3600),
            static_cast<SQLUSMALLINT>(seconds / 60 % 60),
            static_cast<SQLUSMALLINT>(seconds % 60),
            static_cast<SQLUINTEGER>(time % 1000000) * kNanosecondsPerMicrosecond};
}

void Wide::MultiplyAndAdd(std::uint64_t factor, std::uint64_t carry) {
    for (std::uint64_t& word : words) {
        __extension__ using Double = unsigned __int128;
        const Double product = Double{word} * factor + carry;
        word = static_cast<std::uint64_t>(product);
        carry = static_cast<std::uint64_t>(product >> 64U);
    }
}

void Wide::Negate() {
    for (std::uint64_t& word : words) word = ~word;
    MultiplyAndAdd(1, 1);
}

Digits TakeApart(std::string_view decimal) {
    const bool isNegative = !decimal.empty() && decimal.front() == '-';
    if (isNegative || (!decimal.empty() && decimal.front() == '+')) decimal.remove_prefix(1);
    const size_t point = std::min(decimal.find('.'), decimal.size());
    std::string_view whole = decimal.substr(0, point);
    std::string_view fraction = decimal.substr(std::min(point + 1, decimal.size()));
    const auto isDigits = [](std::string_view text) {
        return text.find_first_not_of("0123456789") == std::string_view::npos;
    };
    if (whole.size() + fraction.size() == 0 || !isDigits(whole) || !isDigits(fraction))
        throw Failure("22018", "the decimal has other characters than digits");
    whole.remove_prefix(std::min(whole.find_first_not_of('0'), whole.size()));
    fraction = fraction.substr(0, fraction.find_last_not_of('0') + 1);
    return {isNegative, whole, fraction};
}

Wide NumberOf(const Digits& digits, int scale) {
    Wide number{};
    const auto add = [&number](char character) {
        number.MultiplyAndAdd(10, static_cast<std::uint64_t>(character - '0'));
    };
    std::for_each(digits.whole.begin(), digits.whole.end(), add);
    std::for_each(digits.fraction.begin(), digits.fraction.end(), add);
    for (int i = static_cast<int>(digits.fraction.size()); i < scale; ++i) add('0');
    if (digits.isNegative) number.Negate();
    return number;
}

std::string TextOf(Wide number, int scale) {
    const bool isNegative = number.IsNegative();
    if (isNegative) number.Negate();
    std::string text;
    // From the last digit on.
    for (int i = 0; i <= scale || number.words != Wide{}.words; ++i) {
        if (i == scale && scale > 0) text += '.';
        std::uint64_t rest = 0;
        for (size_t word = number.words.size(); word-- > 0;) {
            __extension__ using Double = unsigned __int128;
            const Double dividend = (Double{rest} << 64U) | number.words[word];
            number.words[word] = static_cast<std::uint64_t>(dividend / 10);
            rest = static_cast<std::uint64_t>(dividend % 10);
        }
        text += static_cast<char>('0' + rest);
    }
    if (isNegative) text += '-';
    std::reverse(text.begin(), text.end());
    return text;
}

bool IsUtf8(std::string_view text) {
    const auto* at = reinterpret_cast<const unsigned char*>(text.data());
    const auto* const end = at + text.size();
    while (at != end) {
        std::uint64_t eight = 0;
        if (end - at >= 8) std::memcpy(&eight, at, sizeof eight);
        if (end - at >= 8 && (eight & 0x8080808080808080U) == 0) {
            at += 8;
            continue;
        }
        const unsigned lead = *at;
        const int size = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        if ((size > 1 && lead < 0xC2) || lead > 0xF4 || end - at < size) return false;
        unsigned character = size == 1 ? lead : lead & (0x7FU >> size);
        for (int i = 1; i < size; ++i) {
            if ((at[i] & 0xC0U) != 0x80) return false;
            character = character << 6U | (at[i] & 0x3FU);
        }
        constexpr unsigned kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
        if (character < kLeast[size] || character > 0x10FFFF || (character >> 11U) == 0x1B)
            return false;
        at += size;
    }
    return true;
}
