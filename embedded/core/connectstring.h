#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace embedded {

/// A connection string taken apart.
class ConnectString {
  public:
    struct Pair {
        std::string key;
        std::string value;
        bool mayBeSecret = false;  ///< it may belong to a password with a semicolon in it
    };

    /// Reads "Key=Value;…": values optionally in braces ("}}" is a brace inside them). Throws an
    /// `Error` that names what is wrong, and quotes nothing that may belong to a password.
    explicit ConnectString(std::string_view text);

    /// The text as it was given.
    const std::string& text() const noexcept { return m_text; }

    /// In the order of the text, with the doubles: the first of equal keys counts.
    const std::vector<Pair>& pairs() const noexcept { return m_pairs; }

    /// Whether there is a value for `key`, ASCII letters in any case.
    bool has(std::string_view key) const noexcept;

  private:
    std::string m_text;
    std::vector<Pair> m_pairs;
};

}  // namespace embedded
