#pragma once

#include <sqlite3.h>

#include "error.h"

namespace embedded {

/// The last failure of `db`, with the SQLSTATE that fits it best.
Error sqliteError(sqlite3* db);

/// The failure `code` with the text `message`.
Error sqliteError(int code, const char* message);

}  // namespace embedded
