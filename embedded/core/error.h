#pragma once

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

namespace embedded {

/// Native codes of failures that the runtime finds itself. Whichever engine runs, they are SQLite's
/// numbers, which applications of this runtime know.
namespace native {
inline constexpr int kError = 1;
inline constexpr int kNoMemory = 7;
inline constexpr int kMismatch = 20;
inline constexpr int kMisuse = 21;
inline constexpr int kRange = 25;
}  // namespace native

/// Five characters and a terminator.
using SqlState = std::array<char, 6>;

constexpr SqlState sqlState(std::string_view text) noexcept {
    SqlState state{};
    for (size_t i = 0; i < state.size() - 1; ++i) state[i] = i < text.size() ? text[i] : '0';
    return state;
}

/// A failure on its way to the caller's diagnostics. Thrown anywhere below the entry points, which
/// are the only place that catches it.
///
/// The native code is never 0: callers tell a failure from a warning by it.
class Error : public std::runtime_error {
  public:
    /// A failure found by the runtime itself, with the code that describes it best.
    Error(std::string_view state, const std::string& text, int native = native::kError);

    /// A failure reported by SQLite: its extended result code and its own message.
    static Error fromSqlite(std::string_view state, const std::string& text, int extendedCode);

    /// A failure reported by the driver manager or a driver of it, in its own words.
    static Error fromDriver(std::string_view state, const std::string& text, int native);

    /// The same failure with the place where it happened behind its text, in brackets.
    Error in(const std::string& place) const {
        Error error{Verbatim{}, state(), std::string(what()) + " (" + place + ")", m_native};
        error.m_isFromDriver = m_isFromDriver;
        return error;
    }

    /// Terminated.
    std::string_view state() const noexcept { return {m_state.data(), m_state.size() - 1}; }
    int native() const noexcept { return m_native; }
    bool isFromDriver() const noexcept { return m_isFromDriver; }

  private:
    struct Verbatim {};
    Error(Verbatim, std::string_view state, const std::string& message, int native)
        : std::runtime_error(message), m_state(sqlState(state)), m_native(native) {}

    SqlState m_state;
    int m_native;
    bool m_isFromDriver = false;
};

/// A call out of order (HY010): `what` says what is missing.
Error sequenceError(const std::string& what);

/// A use of a connection that was opened before a fork (08S01).
Error inheritedError();

/// What is said where a failure has ended the application's whole transaction: to a statement that
/// counts on it (25P02), to a COMMIT (40000), or as the failure itself (40001).
Error lostTransaction(std::string_view state);

/// A feature this runtime does not have (HYC00).
Error notSupported(const std::string& what);

}  // namespace embedded
