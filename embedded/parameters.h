#pragma once

#include <sql.h>
#include <sqlext.h>
#include <sqlite3.h>

#include <vector>

namespace embedded {

/// One SQLBindParameter call. Data and indicators are the application's and are read at execution.
struct ParameterBinding {
    SQLSMALLINT cType = 0;
    const char* data = nullptr;
    SQLLEN bufferLength = 0;
    const SQLLEN* indicators = nullptr;
    bool bound = false;
};

/// How the values of several parameter sets lie in memory.
struct ParameterLayout {
    SQLULEN rowSize = SQL_PARAM_BIND_BY_COLUMN;  ///< bytes from set to set, or column-wise
    SQLULEN offset = 0;                          ///< added to every address
};

/// How long SQLite may refer to the application's buffers.
enum class BufferLife {
    Execution,  ///< the statement has ended before the execution returns
    Copied,     ///< rows are fetched later, when the buffers may be gone
};

/// The C type that `cType` stands for with the SQL type `sqlType`, which matters for SQL_C_DEFAULT
/// only. Throws HY003 for a type that is none, HYC00 for one that parameters cannot have.
SQLSMALLINT parameterCType(SQLSMALLINT cType, SQLSMALLINT sqlType);

/// Hands the 0-based parameter set `set` to `statement`, values of markers 1, 2, … in turn. Throws
/// 07002 when a marker has no binding, and for values that cannot be stored exactly.
void bindParameterSet(sqlite3_stmt* statement, const std::vector<ParameterBinding>& bindings,
                      const ParameterLayout& layout, SQLULEN set, BufferLife life);

}  // namespace embedded
