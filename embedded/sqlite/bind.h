#pragma once

#include <sqlite3.h>

#include "core/parameters.h"
#include "sqlite/decimals.h"

namespace embedded {

/// How long SQLite may refer to the application's buffers.
enum class BufferLife {
    Execution,  ///< the statement has ended before the execution returns
    Copied,     ///< rows are fetched later, when the buffers may be gone
};

/// Hands the 0-based parameter set `set` to `statement`, values of markers 1, 2, … in turn. Throws
/// for values that cannot be stored exactly; `decimals`, if there is one, is told of the texts of
/// this set for which that depends on where they are stored.
void bindSet(sqlite3_stmt* statement, const ParameterSets& sets, SQLULEN set, BufferLife life,
             DecimalWatch* decimals);

}  // namespace embedded
