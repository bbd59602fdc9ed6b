// The data source layer as the layers above see it: DB type codes, value records, the description
// of a column, and the two static fronts over one provider interface. Only dbsapi.cpp includes
// this.
#pragma once

#include <cstddef>
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

// Where every fetch leaves the value of a column, for reading many rows without asking for each
// cell. The addresses belong to the result set and stay the same until it ends.
struct _db_column_buffer_ {
    int DataType;  // the DB type code, which tells what Value points to
    int Scale;
    const void* Value;             // of a fixed-size column, in its ODBC C form
    const char* Text;              // of a text column, else of no use
    int TextSize;                  // bytes at Text, terminator included; 0 for other columns
    const std::ptrdiff_t* Length;  // the provider's: -1 for NULL, else never to be trusted
};
using DbColumnBuffer = _db_column_buffer_;

// How much of a bound text or binary value the bound buffer really holds.
struct ValueExtent {
    int Length;          // bytes in the buffer that belong to the value
    bool IsCut;          // the provider had more than the buffer could take
    long long Reported;  // the provider's own length, negative when it does not know it
};

// Forwards each operation to Impl; the binding is static.
template <class Impl>
class DbResultSet {
  public:
    int Init() { return m_impl.Init(); }
    int Close() { return m_impl.Close(); }
    int Next() { return m_impl.Next(); }
    int GetColumnCount() { return m_impl.GetColumnCount(); }
    const DbColumnInfo* GetColumnInfo(int index) { return m_impl.GetColumnInfo(index); }
    int GetInt(int index, int& value) { return m_impl.GetInt(index, value); }
    int GetBigint(int index, long long& value) { return m_impl.GetBigint(index, value); }
    int GetDouble(int index, double& value) { return m_impl.GetDouble(index, value); }
    int GetDate(int index, _db_date_& value) { return m_impl.GetDate(index, value); }
    int GetTime(int index, _db_time_& value) { return m_impl.GetTime(index, value); }
    int GetDateTime(int index, _db_datetime_& value) { return m_impl.GetDateTime(index, value); }
    int GetStringAsUTF8(int index, char** text, int* length) {
        return m_impl.GetStringAsUTF8(index, text, length);
    }
    int GetStringAsUCS2(int index, char** text, int* length) {
        return m_impl.GetStringAsUCS2(index, text, length);
    }
    int GetBytes(int index, char** data, int* length) {
        return m_impl.GetBytes(index, data, length);
    }
    int GetLastError() { return m_impl.GetLastError(); }
    const char* GetLastErrorMessage() { return m_impl.GetLastErrorMessage(); }
    Impl* GetImpl() { return &m_impl; }

  private:
    Impl m_impl;
};

// Forwards each operation to Impl; the binding is static.
template <class Impl, class ResultSet>
class DbSource {
  public:
    int Init() { return m_impl.Init(); }
    int Open(const char* connStr, int len) { return m_impl.Open(connStr, len); }
    int Close() { return m_impl.Close(); }
    int Config(int attribute, void* value, int length) {
        return m_impl.Config(attribute, value, length);
    }
    int Prepare(const char* sql, int len) { return m_impl.Prepare(sql, len); }
    int AddParam(const char* name, int nameLen, int dbType, const void* values, int len,
                 const int* lengths) {
        return m_impl.AddParam(name, nameLen, dbType, values, len, lengths);
    }
    int Execute(ResultSet* rs, int* rowCount) { return m_impl.Execute(rs, rowCount); }
    int Execute(const char* sql, int len, ResultSet* rs, int* rowCount) {
        return m_impl.Execute(sql, len, rs, rowCount);
    }
    int IsOpen() { return m_impl.IsOpen(); }
    int GetLastError() { return m_impl.GetLastError(); }
    const char* GetLastErrorMessage() { return m_impl.GetLastErrorMessage(); }
    Impl* GetImpl() { return &m_impl; }

  private:
    Impl m_impl;
};
