// The values that the data source layer exchanges with the layers above it: DB type codes, calendar
// records, the description of a column.
#pragma once

#include <memory>

#include "util/def.h"
#include "util/dynstr.h"

// The module's own type codes. Code 4, 9, 13, 14, 18 to 20 and all unknown ones travel as text.
enum DbType : int {
    DBTYPE_BINARY = 1,
    DBTYPE_TINYINT = 2,
    DBTYPE_BIT = 3,
    DBTYPE_DATE = 5,
    DBTYPE_DATETIME = 6,
    DBTYPE_NUMERIC = 7,
    DBTYPE_DOUBLE = 8,
    DBTYPE_GUID = 9,
    DBTYPE_SMALLINT = 10,
    DBTYPE_INTEGER = 11,
    DBTYPE_BIGINT = 12,
    DBTYPE_TEXT = 13,
    DBTYPE_FLOAT = 15,
    DBTYPE_STRING = 16,
    DBTYPE_TIME = 17,
    DBTYPE_DECIMAL = 21,
    DBTYPE_NONE = 30,
    // A parameter code only: a _db_datetime_ whose Millisecond field holds microseconds. A Python
    // datetime has more precision than code 6 can carry, and this is all that it takes not to lose
    // it.
    DBTYPE_DATETIME_MICRO = 31,
};

struct _db_date_ {
    int Year, Month, Day;
};

// Day comes first: a count of days, for times that pass a day boundary.
struct _db_time_ {
    int Day, Hour, Minute, Second, Millisecond;
};

struct _db_datetime_ {
    int Year, Month, Day, Hour, Minute, Second, Millisecond;
};

// One result column. Owns its name (UTF-8, as the driver gave it).
struct _db_column_info_ {
    DynStr ColumnName;
    int DataType = 0;
    int ColumnSize = 0;
    int Precision = 0;
    int Scale = 0;
    int IsNullable = 0;

    _db_column_info_() = default;
    // Without memory for a long name the name is empty.
    _db_column_info_(const char* name, int nameLength, int dataType, int columnSize, int precision,
                     int scale, int isNullable) noexcept;

    // A deep copy, owned by the caller; null for want of memory.
    VORDA_EXPORT std::unique_ptr<_db_column_info_> Clone() const noexcept;
};
using DbColumnInfo = _db_column_info_;
