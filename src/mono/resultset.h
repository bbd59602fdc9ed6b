// An executed statement with its column descriptions and bound buffers: one row at a time, each
// column bound once to a buffer of its own.
#pragma once

#include <memory>
#include <vector>

#include "include/cell.h"
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
    // Where fetches leave a column's value; null for an index that has no binding.
    const DbCell* CellOf(int index) const {
        const bool isBound = index >= 0 && index < static_cast<int>(m_cells.size());
        return isBound ? &m_cells[static_cast<size_t>(index)] : nullptr;
    }
    // The same for a value to be read now: 0, -1 for NULL, or a positive code.
    int Readable(int index, const DbCell*& cell);

    bool FetchFailed() const { return m_fetchFailed; }

  private:
    int InitMetadata();
    int InitColumnBinding();
    // Hands a value that is there to `take`.
    template <class Take>
    int Read(int index, Take&& take) {
        const DbCell* cell = nullptr;
        const int status = Readable(index, cell);
        if (status == VORDA_OK) take(*cell);
        return status;
    }
    bool ReadNumber(int column, SQLUSMALLINT field, SQLLEN& value);
    int ReadColumn(int column);
    int BindColumn(int index);
    void ForgetColumns();
    void WipeBuffers();
    bool StatementPassed(SQLRETURN result) { return Passed(result, nullptr, nullptr, m_hstmt); }

    SQLHSTMT m_hstmt = nullptr;
    // How many columns the driver reports, and how many of them are described so far. The records
    // behind these are of an earlier result and wait for a next one: programs run the same
    // statements many times.
    int m_columnCount = 0;
    int m_infoCount = 0;
    JavaVector<_db_column_info_> m_columns;
    JavaVector<_col_binding_info_> m_colBindingInfo;
    // One for each column that the driver was asked to bind.
    std::vector<DbCell> m_cells;
    // The buffers of texts and binaries among them.
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

using IntDbResultSet = DbResultSet<ODBCResultSetImpl>;
