/// What this runtime adds to the ODBC standard. Callers have copies: nothing here ever changes.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstddef>
#include <cstdint>

namespace embedded {

/// A statement attribute, 0 or 1: whether SQLMoreResults gives the results behind the first.
/// Without it, their failures are reported at the end of the first one's rows.
inline constexpr SQLINTEGER kAllResultsAttribute = 0x7002;

/// SQL_DESC_VORDA_ASSUMED, a numeric field of columns for SQLColAttribute: 1 if the column has no
/// declared type, and what it is described as is that of the value in the first row.
inline constexpr SQLUSMALLINT kAssumedField = 0x7001;

/// SQL_C_VORDA_CELL, a C type for SQLBindCol and SQLGetData: a value as what it is, whatever its
/// column is described as. The buffer, of `kSmallestCell` bytes at least, receives a `VordaCell`;
/// texts, blobs and decimals go from offset 8 to the end of the buffer, without a terminator. The
/// indicator, which is required, receives the value's length in bytes without the eight in front.
inline constexpr SQLSMALLINT kCellCType = 0x4001;

enum class CellKind : std::int32_t {
    Null = 0,
    Integer = 1,
    Real = 2,
    Text = 3,  ///< UTF-8
    Blob = 4,
    Decimal = 5,  ///< digits as a text, without exponent
    Date = 6,     ///< these three in `stamp`, the parts that they do not have being 0
    Time = 7,
    Timestamp = 8,
    Boolean = 9,  ///< an integer, 0 or 1
};

struct VordaCell {
    CellKind kind;
    std::int32_t reserved;  ///< 0
    union {
        std::int64_t integer;
        double real;
        SQL_TIMESTAMP_STRUCT stamp;
        char bytes[16];  ///< and on
    };
};

/// SQL_ATTR_VORDA_IN_TRANSACTION, an attribute of connections, to be read: whether a transaction is
/// open. HY092 with an engine that does not tell.
inline constexpr SQLINTEGER kInTransactionAttribute = 0x7002;

/// SQL_ATTR_VORDA_PROGRESS, an attribute of connections: a pointer to one of these, which must last
/// as long as the connection, or null. `look` is called now and then in the middle of calls, by the
/// thread that makes them; another answer than 0 ends the call as SQLCancel does. It must not call
/// the connection. HY092 with an engine that cannot.
struct VordaProgress {
    int (*look)(void* context);
    void* context;
};
inline constexpr SQLINTEGER kProgressAttribute = 0x7003;

/// SQL_ATTR_VORDA_FILES_ONLY, an attribute of connections, 0 or 1: whether SQLDriverConnect, where
/// it would have to wait for a driver, answers SQL_NO_DATA at once instead.
inline constexpr SQLINTEGER kFilesOnlyAttribute = 0x7004;

/// Types of ODBC 4, for SQLBindParameter: a time, and a timestamp, with a time zone. The value is a
/// text as in ISO 8601, and refused (22007) where the database would drop the time zone.
inline constexpr SQLSMALLINT kZonedTime = 94;
inline constexpr SQLSMALLINT kZonedTimestamp = 95;

inline constexpr SQLLEN kSmallestCell = sizeof(VordaCell);
static_assert(kSmallestCell == 24 && offsetof(VordaCell, bytes) == 8);

}  // namespace embedded
