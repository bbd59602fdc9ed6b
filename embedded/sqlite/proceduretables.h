#pragma once

#include <sqlite3.h>

namespace embedded {

/// Gives `db` the read-only tables sys_procedures and sys_procedureparameters. They exist in every
/// database and occupy nothing in its file: their rows are computed from the stored procedures.
/// Throws an `Error`.
void addProcedureTables(sqlite3* db);

}  // namespace embedded
