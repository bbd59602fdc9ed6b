#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace embedded {

/// What a connection string asks for.
struct ConnectOptions {
    std::string database;  ///< path, or ":memory:"
    int openFlags = 0;     ///< SQLITE_OPEN_… from `Mode`
    int timeoutMs = 5000;  ///< how long to wait for a locked database
    std::vector<std::string> unknownKeys;
};

/// Reads "Key=Value;…": keys in any case, values optionally in braces ("}}" is a brace inside
/// them), the first of equal keys wins. Throws an `Error` that names what is wrong.
ConnectOptions parseConnectString(std::string_view text);

}  // namespace embedded
