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

bool isBlank(char c) noexcept {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

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
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

std::string shortened(std::string text, size_t limit) {
    constexpr std::string_view kEllipsis = "...";
    if (text.size() > limit) {
        text.resize(wholeCharacters(text, limit - kEllipsis.size()));
        text += kEllipsis;
    }
    return text;
}

std::string inQuotes(std::string_view value) {
    return "'" + shortened(std::string(value.substr(0, kMaxQuoted + 1)), kMaxQuoted) + "'";
}

}  // namespace embedded
