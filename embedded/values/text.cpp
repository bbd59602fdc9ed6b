#include "values/text.h"

#include <algorithm>

namespace embedded {
namespace {

char upperAscii(char c) noexcept {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
}

bool isContinuation(char c) noexcept {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

constexpr size_t kMaxQuoted = 40;

constexpr std::string_view kBlanks = " \t\r\n\f\v";

}  // namespace

size_t wholeCharacters(std::string_view text, size_t limit) noexcept {
    if (text.size() <= limit) return text.size();
    size_t end = limit;
    for (int steps = 0; steps < 3 && end > 0 && isContinuation(text[end]); ++steps) --end;
    // Four continuation bytes in a row are no UTF-8: nothing to keep whole.
    return isContinuation(text[end]) ? limit : end;
}

bool sameWord(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return upperAscii(x) == upperAscii(y);
           });
}

std::string upper(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), upperAscii);
    return result;
}

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
    }
    return result;
}

std::string_view trimmed(std::string_view text) noexcept {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string shortened(std::string text, size_t limit) {
    constexpr std::string_view kEllipsis = "...";
    if (text.size() > limit) {
        text.resize(wholeCharacters(text, limit - kEllipsis.size()));
        text += kEllipsis;
    }
    return text;
}

std::string quoted(std::string_view value) {
    return "'" + shortened(std::string(value.substr(0, kMaxQuoted + 1)), kMaxQuoted) + "'";
}

}  // namespace embedded
