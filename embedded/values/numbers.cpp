#include "values/numbers.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

#include "values/text.h"

namespace embedded {
namespace {

constexpr int kMaxDigits = 1000;

/// A double keeps so many digits of every decimal.
constexpr int kSafeDigits = 15;

size_t digitsAt(std::string_view text) noexcept {
    const size_t end = text.find_first_not_of("0123456789");
    return end == std::string_view::npos ? text.size() : end;
}

}  // namespace

std::string_view formatInteger(std::int64_t value, NumberBuffer& buffer) noexcept {
    const auto end = std::to_chars(std::begin(buffer), std::end(buffer), value).ptr;
    return {buffer, static_cast<size_t>(end - buffer)};
}

std::string_view formatDouble(double value, NumberBuffer& buffer) noexcept {
    char* end = std::to_chars(std::begin(buffer), std::end(buffer), value).ptr;
    const std::string_view digits(buffer, static_cast<size_t>(end - buffer));
    if (std::isfinite(value) && digits.find_first_of(".e") == std::string_view::npos) {
        *end++ = '.';
        *end++ = '0';
    }
    return {buffer, static_cast<size_t>(end - buffer)};
}

std::optional<std::string> plainDecimal(std::string_view text) {
    text = trimmed(text);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);

    const std::string_view whole = text.substr(0, digitsAt(text));
    text.remove_prefix(whole.size());
    std::string_view fraction;
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        fraction = text.substr(0, digitsAt(text));
        text.remove_prefix(fraction.size());
    }
    if (whole.empty() && fraction.empty()) return std::nullopt;

    int exponent = 0;
    if (!text.empty()) {
        if (text.front() != 'e' && text.front() != 'E') return std::nullopt;
        text.remove_prefix(1);
        if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
        const char* end = text.data() + text.size();
        const auto parsed = std::from_chars(text.data(), end, exponent);
        if (parsed.ec != std::errc{} || parsed.ptr != end) return std::nullopt;
    }

    // All digits in a row, with the point behind the first `point` of them.
    std::string digits(whole);
    digits += fraction;
    if (digits.size() > kMaxDigits || std::abs(static_cast<long>(exponent)) > kMaxDigits) {
        return std::nullopt;
    }
    long point = static_cast<long>(whole.size()) + exponent;
    if (point <= 0) {
        digits.insert(0, static_cast<size_t>(1 - point), '0');
        point = 1;
    } else if (point > static_cast<long>(digits.size())) {
        digits.append(static_cast<size_t>(point) - digits.size(), '0');
    }
    // One digit at least stays in front of the point.
    const size_t zeros = std::min(digits.find_first_not_of('0'), static_cast<size_t>(point - 1));
    std::string result = negative ? "-" : "";
    result += std::string_view(digits).substr(zeros, static_cast<size_t>(point) - zeros);
    if (static_cast<size_t>(point) < digits.size()) {
        result += '.';
        result += std::string_view(digits).substr(static_cast<size_t>(point));
    }
    return result;
}

std::optional<std::string> plainDecimal(double value) {
    if (!std::isfinite(value)) return std::nullopt;
    NumberBuffer buffer;
    // In this form the digits are the shortest; as a plain number, large values get all of theirs.
    constexpr auto kForm = std::chars_format::scientific;
    char* end = std::to_chars(std::begin(buffer), std::end(buffer), value, kForm).ptr;
    const std::string_view shortest(buffer, static_cast<size_t>(end - buffer));
    const auto digits =
        std::count_if(shortest.begin(), shortest.begin() + shortest.find('e'), isDigit);
    if (digits > kSafeDigits) {
        NumberBuffer rounded;
        const auto written =
            std::to_chars(std::begin(rounded), std::end(rounded), value, kForm, kSafeDigits - 1);
        double neighbour = 0;
        std::from_chars(rounded, written.ptr, neighbour);
        if (std::nextafter(value, neighbour) == neighbour) {
            // The shortest form of that number; its digits may end in zeros here.
            end = std::to_chars(std::begin(buffer), std::end(buffer), neighbour, kForm).ptr;
        }
    }
    return plainDecimal(std::string_view(buffer, static_cast<size_t>(end - buffer)));
}

bool exactInteger(double value, std::int64_t& out) noexcept {
    constexpr double kLimit = 9223372036854775808.0;
    if (!(value >= -kLimit && value < kLimit) || value != std::trunc(value)) return false;
    out = static_cast<std::int64_t>(value);
    return true;
}

}  // namespace embedded
