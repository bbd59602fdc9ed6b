// Numbers to and from text, and the other helpers on text, each against arithmetic of its own.
#include <bit>
#include <cmath>
#include <regex>

#include "fuzz.h"
#include "util/core.h"
#include "util/dynstr.h"

namespace {

using fuzz::lower;
using fuzz::require;
using fuzz::requireSame;

// The digits, the place of the point and the exponent are cut out as texts, then put together.
double expectedDouble(std::string_view text, std::size_t& end) {
    static const std::regex kNumber(R"([ \t\r\n]*([-+]?)(\d*)(?:\.(\d*))?)");
    static const std::regex kPower(R"([eE]([-+]?)(\d*))");
    constexpr auto kHere = std::regex_constants::match_continuous;
    std::cmatch part, power;
    std::regex_search(text.begin(), text.end(), part, kNumber, kHere);
    std::string digits = part[2].str() + part[3].str();
    const bool negative = part[1] == "-";
    end = 0;
    if (digits.empty()) return negative ? -0.0 : 0.0;
    end = static_cast<std::size_t>(part.length());
    digits.resize(std::min<std::size_t>(digits.size(), 18));
    auto exponent = static_cast<long double>(part[2].length() - std::ssize(digits));
    const std::size_t high = digits.size() > 9 ? digits.size() - 9 : 0;
    double value = 1e9 * (high > 0 ? std::stoi(digits.substr(0, high)) : 0);
    value += std::stoi(digits.substr(high));

    if (std::regex_search(part[0].second, text.end(), power, kPower, kHere)) {
        // Without digits not even the point counts.
        if (power[2].length() == 0) return negative ? -value : value;
        const long double applied = std::strtold(power[2].str().c_str(), nullptr);
        exponent += power[1] == "-" ? -applied : applied;
        end += static_cast<std::size_t>(power.length());
    }
    const auto magnitude = static_cast<unsigned>(std::min(std::fabs(exponent), 511.0L));
    double scale = 1.0;
    for (unsigned bit = 0; bit < 9; ++bit) {
        if ((magnitude >> bit & 1U) == 0) continue;
        scale *= std::strtod(("1e" + std::to_string(1U << bit)).c_str(), nullptr);
    }
    value = exponent < 0 ? value / scale : value * scale;
    return negative ? -value : value;
}

void checkDouble(std::string_view text) {
    const std::vector<char> exact = fuzz::terminated(text);
    text = exact.data();
    std::size_t end = 0;
    const double expected = expectedDouble(text, end);
    char* stopped = nullptr;
    const double value = mystrtod(exact.data(), &stopped);
    require(stopped == exact.data() + end, "where the number ends");
    require(std::isnan(value)
                ? std::isnan(expected)
                : std::bit_cast<std::uint64_t>(value) == std::bit_cast<std::uint64_t>(expected),
            "the number's value");
    // What has no digit too many and no odd exponent is where the C library has it.
    const bool odd = end < text.size() && (text[end] == 'e' || text[end] == 'E');
    const std::string number(text.substr(0, end));
    const double library = std::strtod(number.c_str(), nullptr);
    if (odd || end > 18 || !(std::fabs(library) > 1e-290 && std::fabs(library) < 1e290)) return;
    require(std::fabs(value - library) <= 4e-15 * std::fabs(library), "it is near strtod's");
}

void checkIntegers(std::string_view text) {
    const std::vector<char> exact = fuzz::terminated(text);
    const auto expected = [&](int base) {
        std::string_view rest = exact.data();
        const bool negative = rest.starts_with('-');
        if (negative || rest.starts_with('+')) rest.remove_prefix(1);
        const std::string_view digits = base == 10 ? "0123456789" : "0123456789abcdef";
        std::uint64_t value = 0;
        for (char c : rest) {
            const std::size_t digit = digits.find(lower({&c, 1}));
            if (digit == std::string_view::npos) break;
            value = value * static_cast<unsigned>(base) + digit;
        }
        return static_cast<std::int64_t>(negative ? -value : value);
    };
    require(myatoi64(exact.data()) == expected(10) && myatol(exact.data()) == expected(10) &&
                myatoi(exact.data()) == static_cast<int>(expected(10)),
            "a decimal integer");
    require(myhextoi64(exact.data()) == expected(16) && myhextol(exact.data()) == expected(16) &&
                myhextoi(exact.data()) == static_cast<int>(expected(16)),
            "a hexadecimal integer");
}

// In integer arithmetic: `units` of 10^-9, and which number of them the sum of doubles may come out
// as because the exact value lies that close to it.
struct Fraction {
    long units = 0;
    long also = 0;
};
Fraction fractionOf(double value) {
    const auto bits = std::bit_cast<std::uint64_t>(value);
    const int shift = 1075 - static_cast<int>(bits >> 52 & 0x7FF);
    if (shift < 1 || shift > 100) return {};
    using Wide = unsigned __int128;
    // Neither bit 0 of the mantissa counts nor what weighs less than 2^-63.
    const int ignored = std::max(1, shift - 63);
    const Wide mantissa = ((bits & ((1ULL << 52) - 1)) | 1ULL << 52) >> ignored << ignored;
    const Wide one = Wide{1} << shift;
    const Wide scaled = (mantissa & (one - 1)) * 1'000'000'000;
    const auto units = static_cast<long>(scaled >> shift);
    const Wide rest = scaled & (one - 1);
    const auto isClose = [&](Wide distance) { return distance >> 12 < one >> 30; };
    return {units, isClose(one - rest) ? units + 1
                   : isClose(rest)     ? std::max(units - 1, 0L)
                                       : units};
}

std::string expectedText(double value, long units) {
    long fraction = units / 10 + (units % 10 > 4 ? 1 : 0);
    auto whole = static_cast<long long>(value);
    std::string text = whole == 0 && value < 0 ? "-" : "";
    if (fraction == 100'000'000) {
        fraction = 0;
        whole += whole > 0 ? 1 : -1;
    }
    text += std::to_string(whole);
    if (fraction == 0) return text;
    const std::string digits = std::to_string(fraction);
    text += "." + std::string(8 - digits.size(), '0') + digits;
    return text.substr(0, text.find_last_not_of('0') + 1);
}

void checkFormatting(double value, long long integer, int width) {
    DynStr text;
    text.Set("=");
    const int status = text.AppendDouble(value);
    if (!(std::fabs(value) <= 9223372036854775808.0)) {
        require(status == VORDA_NUMBER_OUT_OF_RANGE, "what is no number of 64 bits is refused");
        requireSame(text.Deref(), "=", "and nothing is appended");
    } else if (std::fabs(value) >= 4503599627370496.0) {
        char expected[40];
        std::snprintf(expected, sizeof expected, "=%.0f", value);
        requireSame(text.Deref(), expected, "a large double");
    } else {
        const Fraction fraction = fractionOf(value);
        if (text.Deref() != "=" + expectedText(value, fraction.also)) {
            requireSame(text.Deref(), "=" + expectedText(value, fraction.units), "a double");
        }
    }
    text.Set("");
    text.AppendInt64(integer);
    text.AppendInt(static_cast<int>(integer));
    const std::string expected = std::to_string(integer);
    requireSame(text.Deref(), expected + std::to_string(static_cast<int>(integer)), "integers");
    std::vector<char> narrow(static_cast<std::size_t>(width) + 1);
    const int written = FormatInt64(narrow.data(), width, integer);
    const bool fits = static_cast<int>(expected.size()) < width;
    require(written == (fits ? static_cast<int>(expected.size()) : 0), "the length of an integer");
    requireSame(narrow.data(), fits ? expected : "", "an integer in little room");

    const auto number = static_cast<unsigned>(integer);
    std::string padded = std::to_string(number);
    padded.insert(
        0,
        std::max<std::size_t>(padded.size(), static_cast<std::size_t>(width % 40)) - padded.size(),
        '*');
    std::vector<char> room(padded.size() + 1, '?');
    char* out = room.data();
    myutoa(&out, number, width % 40, '*');
    require(out == room.data() + padded.size(), "myutoa moves to the end");
    requireSame(room.data(), padded, "myutoa");
}

void checkTexts(std::string_view first, std::string_view second, std::size_t count) {
    const std::vector<char> a = fuzz::terminated(first);
    const std::vector<char> b = fuzz::terminated(second);
    const std::string x = lower(a.data());
    const std::string y = lower(b.data());
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    // char_traits compares bytes as unsigned.
    require(sign(mystrcmpi(a.data(), b.data())) == sign(x.compare(y)), "mystrcmpi");
    require(sign(mystrncmpi(a.data(), b.data(), count)) ==
                sign(x.substr(0, count).compare(y.substr(0, count))),
            "mystrncmpi");
    const char* const found = mystrstri(a.data(), b.data());
    const std::size_t at = x.empty() ? std::string::npos : x.find(y);
    require(at == std::string::npos ? found == nullptr : found == a.data() + at, "mystrstri");

    const std::string whole = a.data();
    std::vector<char> cut = a;
    const char delimiter = b[0];
    const std::size_t place = delimiter == '\0' ? std::string::npos : whole.find(delimiter);
    const char* const behind = mystrtok(cut.data(), delimiter);
    require(behind == cut.data() + (place == std::string::npos ? whole.size() : place + 1),
            "mystrtok's result");
    requireSame(cut.data(), whole.substr(0, place), "mystrtok's text");

    cut = a;
    char* next = nullptr;
    const std::size_t any = whole.find_first_of(b.data());
    const char which = mystrtok2(cut.data(), b.data(), next);
    require(which == (any == std::string::npos ? '\0' : whole[any]), "mystrtok2's delimiter");
    require(next == cut.data() + (any == std::string::npos ? whole.size() : any + 1), "and place");
    requireSame(cut.data(), whole.substr(0, any), "mystrtok2's text");
}

}  // namespace

// Two lines of text, then the bytes of a double, an integer and a width.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::string_view first = input.line();
    const std::string_view second = input.line();
    for (const std::string_view text : {first, second}) {
        checkDouble(text);
        checkIntegers(text);
    }
    const auto bits = input.number<std::uint64_t>();
    const auto integer = input.number<std::int64_t>();
    const int width = input.byte() % 64;
    checkTexts(first, second, static_cast<std::size_t>(width));
    checkFormatting(std::bit_cast<double>(bits), integer, width);
    // Doubles as people write them, which random bits hardly ever are.
    for (const std::string_view text : {first, second}) {
        checkFormatting(mystrtod(fuzz::terminated(text).data(), nullptr), integer >> width, width);
    }
    return 0;
}
