// What the fuzz targets share. Each target is one file that defines LLVMFuzzerTestOneInput and
// holds the code to properties, round trips and the opinion of others who read the same (SQLite,
// iconv, the C library); see CMakeLists.txt for how it is built. Whatever it finds wrong ends the
// process.
#pragma once

#include <iconv.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

/// Runs one input. Called by libFuzzer, or by replay_main.cpp for the kept inputs.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// What the code made of a kept input. replay_main.cpp asks for it and compares it with answers/.
inline std::optional<std::ostringstream> answers;

/// A line of the answers. Bytes that no reader sees are written in hexadecimal.
template <class... Parts>
void tell(const Parts&... parts) {
    if (!answers) return;
    std::ostringstream line;
    ((line << parts << ' '), ...);
    for (const char c : line.str()) {
        char shown[8];
        const bool plain = c >= ' ' && c <= '~' && c != '\\';
        std::snprintf(shown, sizeof shown, plain ? "%c" : "\\x%02x", static_cast<unsigned char>(c));
        *answers << shown;
    }
    *answers << '\n';
}

/// Ends the process with the place and `what` unless `holds`.
inline void require(bool holds, std::string_view what, const char* file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
    if (holds) return;
    std::fprintf(stderr, "%s:%d: does not hold: %.*s\n", file, line, static_cast<int>(what.size()),
                 what.data());
    std::abort();
}

/// The same for two texts that must be equal; shows both.
inline void requireSame(std::string_view seen, std::string_view expected, std::string_view what,
                        const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (seen == expected) return;
    std::fprintf(stderr, "seen:     [%.*s]\nexpected: [%.*s]\n", static_cast<int>(seen.size()),
                 seen.data(), static_cast<int>(expected.size()), expected.data());
    require(false, what, file, line);
}

/// An input taken apart from its front. What is missing reads as zeros and empty texts.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size)
        : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return m_rest.empty(); }
    unsigned char byte() {
        const auto taken = take(1);
        return taken.empty() ? 0 : static_cast<unsigned char>(taken.front());
    }
    template <class T>
    T number() {
        T value = 0;
        for (std::size_t i = 0; i < sizeof(T); ++i) value = static_cast<T>(value << 8 | byte());
        return value;
    }
    std::string_view take(std::size_t size) {
        const std::string_view taken = m_rest.substr(0, size);
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    std::string_view rest() { return take(m_rest.size()); }
    /// Up to the next line end, so that inputs made of texts can be read and written by people.
    std::string_view line() {
        const std::string_view taken = take(std::min(m_rest.find('\n'), m_rest.size()));
        take(1);
        return taken;
    }

  private:
    std::string_view m_rest;
};

/// A NUL-terminated copy, without the slack of a std::string in which a read too far goes unseen.
inline std::vector<char> terminated(std::string_view text) {
    std::vector<char> copy(text.begin(), text.end());
    copy.push_back('\0');
    return copy;
}

/// `text` in another encoding, by iconv; nothing where it is malformed.
inline std::optional<std::string> converted(std::string_view text, const char* to,
                                            const char* from) {
    std::string in(text);
    std::string out(4 * in.size() + 4, '\0');
    char* source = in.data();
    char* target = out.data();
    std::size_t left = in.size();
    std::size_t room = out.size();
    const iconv_t codec = iconv_open(to, from);
    const bool good = iconv(codec, &source, &left, &target, &room) == 0 && left == 0;
    iconv_close(codec);
    out.resize(out.size() - room);
    return good ? std::make_optional(out) : std::nullopt;
}

/// Whether all of `text` is well-formed UTF-8.
inline bool isStrict(std::string_view text) {
    return converted(text, "UTF-16LE", "UTF-8").has_value();
}

}  // namespace fuzz
