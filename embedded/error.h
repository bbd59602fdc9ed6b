#pragma once

#include <stdexcept>
#include <string>

namespace embedded {

/// A failure on its way to the caller's diagnostics. Thrown anywhere below the entry points, which
/// are the only place that catches it.
///
/// The native code is never 0: callers tell a failure from a warning by it.
class Error : public std::runtime_error {
  public:
    /// A failure found by the runtime itself. `state` is a literal SQLSTATE, `native` an SQLite
    /// code that describes it best.
    Error(const char* state, const std::string& text, int native = 1);

    /// A failure reported by SQLite: its extended result code and its own message.
    static Error fromSqlite(const char* state, const std::string& text, int extendedCode);

    /// The same failure with the place where it happened behind its text, in brackets.
    Error in(const std::string& place) const {
        return {Verbatim{}, m_state, std::string(what()) + " (" + place + ")", m_native};
    }

    const char* state() const noexcept { return m_state; }
    int native() const noexcept { return m_native; }

  private:
    struct Verbatim {};
    Error(Verbatim, const char* state, const std::string& message, int native)
        : std::runtime_error(message), m_state(state), m_native(native) {}

    const char* m_state;
    int m_native;
};

/// A call out of order (HY010): `what` says what is missing.
Error sequenceError(const std::string& what);

/// A use of a connection that was opened before a fork (08S01).
Error inheritedError();

/// A feature this runtime does not have (HYC00).
Error notSupported(const std::string& what);

}  // namespace embedded
