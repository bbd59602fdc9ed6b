// An executed statement with its column descriptions and bound buffers: one row at a time, each
// column bound once to a buffer of its own.
#pragma once

#include <memory>
#include <vector>

#include "include/dbsource.h"
#include "mono/lasterror.h"
#include "util/javavector.h"

// One value in its ODBC C form: the target of a fixed-size column.
union _odbc_native_value_ {
    SQLCHAR VBit, VTiny;
    SQLSMALLINT VSmall;
    SQLINTEGER VInteger;
    long long VBigInt;
    SQLREAL VReal;
    SQLFLOAT VFloat;
    SQLDOUBLE VDouble;
    SQL_NUMERIC_STRUCT VNumeric;
    SQLPOINTER VPointer;
    SQL_TIME_STRUCT VTime;
    SQL_DATE_STRUCT VDate;
    SQL_TIMESTAMP_STRUCT VTimeStamp;
};
using ODBCNativeValue = _odbc_native_value_;

// The binding of one column. DataType is the mapped C type, which is not always the one bound. The
// driver writes into NativeVal or StringVal, and into ValLen, at every fetch: a record must not
// move.
struct _col_binding_info_ {
    int DataType = 0;
    ODBCNativeValue NativeVal = {};
    DynStr StringVal;
    SQLLEN ValLen = SQL_NULL_DATA;

    // A deep copy, owned by the caller. Nothing is bound to the copy.
    std::unique_ptr<_col_binding_info_> Clone() const;
};

class ODBCResultSetImpl : public LastError {
  public:
    int Init();
    // Frees the statement, the descriptions and the buffers; always 0.
    int Close();
    // Takes an executed statement over, describes its columns and binds them. The result set owns
    // the statement from here on, also when this fails.
    int SetStmtHandle(SQLHSTMT hstmt);
    // Fetches a row: 0, VORDA_NO_MORE_DATA, VORDA_NOT_EXECUTED, or the driver's code. A row that
    // came with information is a good row although its code is returned; a failed fetch makes every
    // getter fail until the next one.
    int Next();

    int GetColumnCount() const { return m_columnCount; }
    // The description of a 0-based column; an empty one past the last, null for a negative index.
    const DbColumnInfo* GetColumnInfo(int index) const;

    // The getters read the current row: 0, -1 for NULL (the output is left alone), or a positive
    // code. None of them checks that the column is of a suitable type, and none calls the driver.
    int GetInt(int index, int& value);
    int GetBigint(int index, long long& value);
    int GetDouble(int index, double& value);
    int GetDate(int index, _db_date_& value);
    // The fraction is handed on in nanoseconds.
    int GetTime(int index, _db_time_& value);
    // The fraction is cut to milliseconds.
    int GetDateTime(int index, _db_datetime_& value);
    // The bound buffer, valid until the next fetch, and how many bytes of it belong to the value.
    int GetStringAsUTF8(int index, char** text, int* length);
    int GetStringAsUCS2(int index, char** text, int* length);
    // The bound buffer and its whole size.
    int GetBytes(int index, char** data, int* length);
    // What became of a value that may have been longer than its buffer.
    int GetExtent(int index, ValueExtent& extent);
    // Where fetches leave a column's value; false for an index that is not bound.
    bool GetColumnBuffer(int index, DbColumnBuffer& buffer) const;
    // The size of the buffer a text or binary column is bound to; 0 for other columns.
    int GetBufferSize(int index) const;

    bool FetchFailed() const { return m_fetchFailed; }

  private:
    int InitMetadata();
    int InitColumnBinding();
    bool ReadNumber(int column, SQLUSMALLINT field, SQLLEN& value);
    int ReadColumn(int column);
    int Readable(int index, const _col_binding_info_*& binding);
    // Null past the last column that is bound.
    _col_binding_info_* BindingOf(int index) const {
        return index < m_bindingCount ? m_colBindingInfo.Get(index) : nullptr;
    }
    void ForgetColumns();
    void WipeBuffers();
    bool StatementPassed(SQLRETURN result) { return Passed(result, nullptr, nullptr, m_hstmt); }

    SQLHSTMT m_hstmt = nullptr;
    // How many columns the driver reports, and how many of them are described and bound so far. The
    // records behind these are of an earlier result and wait for a next one: programs run the same
    // statements many times.
    int m_columnCount = 0;
    int m_infoCount = 0;
    int m_bindingCount = 0;
    JavaVector<_db_column_info_> m_columns;
    JavaVector<_col_binding_info_> m_colBindingInfo;
    // The buffers of texts and binaries among the bindings.
    struct BoundBuffer {
        char* Bytes;
        size_t Size;
        SQLLEN* Length;
    };
    std::vector<BoundBuffer> m_buffers;
    int m_initedMetadata = 0;
    int m_initedColBinding = 0;
    bool m_fetchFailed = false;
};

using IntDbResultSet = DbResultSet<ODBCResultSetImpl>;
