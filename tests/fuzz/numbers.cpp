// Numbers to and from text, and the other helpers on text, beside the C library's own.
#include <strings.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "fuzz.h"
#include "util/core.h"
#include "util/dynstr.h"

namespace {

using fuzz::require;
using fuzz::requireSame;

double checkDouble(const char* text) {
    char* stopped = nullptr;
    const double value = mystrtod(text, &stopped);
    const std::string_view number(text, static_cast<std::size_t>(stopped - text));
    require(number.size() <= std::strlen(text), "a number ends within the text");
    fuzz::tell(std::bit_cast<std::uint64_t>(value), number);
    // What has no digit too many and no odd exponent is where the C library has it.
    const double library = std::strtod(std::string(number).c_str(), nullptr);
    const bool odd = *stopped == 'e' || *stopped == 'E';
    const bool usual = std::fabs(library) > 1e-290 && std::fabs(library) < 1e290;
    require(odd || !usual || number.size() > 18 ||
                std::fabs(value - library) <= 4e-15 * std::fabs(library),
            "a number is near strtod's");
    return value;
}

void checkInteger(const char* text, int base) {
    const std::int64_t seen = base == 10 ? myatoi64(text) : myhextoi64(text);
    require((base == 10 ? myatol(text) : myhextol(text)) == seen, "a long is as wide");
    require((base == 10 ? myatoi(text) : myhextoi(text)) == static_cast<int>(seen), "an int");
    fuzz::tell(base, seen);
    const char* const digits = text + (*text == '+' && text[1] != '-' ? 1 : 0);
    std::int64_t library = 0;
    const auto end = std::from_chars(digits, digits + std::strlen(digits), library, base);
    require(end.ec == std::errc::result_out_of_range || seen == library, "an integer's value");
}

void checkFormatting(double value, long long integer, int width) {
    DynStr text;
    text.Set("");
    const int status = text.AppendDouble(value);
    require((status == VORDA_NUMBER_OUT_OF_RANGE) == !(std::fabs(value) <= 9223372036854775808.0),
            "a double of 64 bits has a text");
    if (status != VORDA_NUMBER_OUT_OF_RANGE) {
        const std::string shown = text.Deref();
        const double back = std::strtod(shown.c_str(), nullptr);
        // A fraction that rounds to one has a rule of its own.
        const bool carries = std::fabs(value - std::trunc(value)) > 0.99999998;
        require(carries || std::fabs(back - value) <= 6e-9 + 3e-16 * std::fabs(value),
                "it reads back");
        require(!shown.ends_with('.') && (shown.find('.') == shown.npos || !shown.ends_with('0')),
                "no zeros at the end");
        fuzz::tell(shown);
    } else {
        requireSame(text.Deref(), "", "what is refused leaves nothing");
    }
    text.Set("=");
    text.AppendInt64(integer);
    text.AppendInt(static_cast<int>(integer));
    const std::string expected = std::to_string(integer);
    requireSame(text.Deref(), "=" + expected + std::to_string(static_cast<int>(integer)),
                "integers");

    std::vector<char> narrow(static_cast<std::size_t>(width) + 1);
    const int written = FormatInt64(narrow.data(), width, integer);
    const bool fits = static_cast<int>(expected.size()) < width;
    require(written == (fits ? static_cast<int>(expected.size()) : 0), "the length of an integer");
    requireSame(narrow.data(), fits ? expected : "", "an integer in little room");

    char padded[64];
    std::snprintf(padded, sizeof padded, "%*u", width % 40, static_cast<unsigned>(integer));
    std::vector<char> room(std::strlen(padded) + 1, '?');
    char* out = room.data();
    myutoa(&out, static_cast<unsigned>(integer), width % 40, ' ');
    require(out == room.data() + room.size() - 1, "myutoa moves to the end");
    requireSame(room.data(), padded, "myutoa");
}

void checkTexts(const std::vector<char>& text, const char* other, std::size_t count) {
    const char* const first = text.data();
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    require(sign(mystrcmpi(first, other)) == sign(strcasecmp(first, other)), "mystrcmpi");
    require(sign(mystrncmpi(first, other, count)) == sign(strncasecmp(first, other, count)),
            "mystrncmpi");
    require(mystrstri(first, other) == (*first != '\0' ? strcasestr(first, other) : nullptr),
            "mystrstri");

    const char delimiter[] = {*other, '\0'};
    for (const char* const set : {delimiter, other}) {
        std::vector<char> cut = text;
        const std::size_t place = std::strcspn(first, set);
        char* next = cut.data();
        if (set == other) {
            require(mystrtok2(cut.data(), set, next) == first[place], "mystrtok2's delimiter");
        } else {
            next = mystrtok(cut.data(), *set);
        }
        require(next == cut.data() + place + (first[place] != '\0' ? 1 : 0), "behind the token");
        requireSame(cut.data(), std::string_view(first, place), "the token");
    }
}

}  // namespace

// Two lines of text, then the bytes of a double, an integer and a width.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const std::vector<char> first = fuzz::terminated(input.line());
    const std::vector<char> second = fuzz::terminated(input.line());
    const auto bits = input.number<std::uint64_t>();
    const auto integer = input.number<std::int64_t>();
    const int width = input.byte() % 64;
    checkTexts(first, second.data(), static_cast<std::size_t>(width));
    checkFormatting(std::bit_cast<double>(bits), integer, width);
    for (const auto& text : {first, second}) {
        checkInteger(text.data(), 10);
        checkInteger(text.data(), 16);
        // Doubles as people write them, which random bits hardly ever are.
        checkFormatting(checkDouble(text.data()), integer >> width, width);
    }
    return 0;
}
