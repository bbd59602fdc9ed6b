#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string_view>

namespace embedded {

/// One value of a result row, as SQLite stores it. Borrows its bytes from the row.
struct Cell {
    int type =
        SQLITE_NULL;  ///< SQLITE_INTEGER, SQLITE_FLOAT, SQLITE_TEXT, SQLITE_BLOB or SQLITE_NULL
    std::int64_t integer = 0;
    double real = 0;
    std::string_view bytes;  ///< of a text (UTF-8) or a blob
};

}  // namespace embedded
