#pragma once

#include <string>

#include "core/connectstring.h"

namespace embedded {

/// What a connection string asks of SQLite.
struct SqliteOptions {
    std::string database;     ///< path, or ":memory:"
    int openFlags = 0;        ///< SQLITE_OPEN_… from `Mode`
    int timeoutMs = 5000;     ///< how long to wait for a locked database
    std::string unknownKeys;  ///< in the order of the text, with commas between them
};

/// Keys in any case, the first of equal keys wins. Throws an `Error` that names what is wrong.
SqliteOptions readOptions(const ConnectString& text);

}  // namespace embedded
