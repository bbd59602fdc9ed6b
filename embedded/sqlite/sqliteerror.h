#pragma once

#include <sqlite3.h>

#include "core/error.h"

namespace embedded {

/// The last failure of `db`, with the SQLSTATE that fits it best.
Error sqliteError(sqlite3* db);

/// To be called where a value of the current row of `statement` was read as null: throws
/// std::bad_alloc if it is not NULL but could not be made for want of memory.
void requireMemory(sqlite3_stmt* statement);

}  // namespace embedded
