// The connection: environment and connection handle, at most one prepared statement, its
// parameters.
#pragma once

#include <memory>

#include "include/dbsource.h"
#include "mono/lasterror.h"
#include "mono/resultset.h"
#include "util/javavector.h"

// Statement attributes that apply to the next execution.
struct _odbc_attribute_ {
    int ODBC_ATTR_PARAMSET_SIZE = 1;
};
using ODBCAttributes = _odbc_attribute_;

// One bound parameter: the values of all parameter sets, which the driver reads at execution. Owns
// both arrays. `Count` is the number of sets that they hold; 0 means that nothing is bound.
struct _odbc_parameter_ {
    int ColumnSize = 0;
    int DataType = 0;
    std::unique_ptr<char[]> Data;
    std::unique_ptr<SQLLEN[]> DataLen;
    int Count = 0;
    // The arrays have the room of one short value, and so serve the next execution as well.
    bool IsSmall = false;

    // Zeroed room for `size` bytes and for the lengths of `sets` values.
    void MakeRoom(size_t size, int sets);
    // Nothing is bound any more; only small arrays are kept.
    void Clear();
};

class ODBCSourceImpl : public LastError {
  public:
    int Init();
    // Connects; `connStr` is NUL-terminated UTF-8, `len` plays no part. An open source stays as it
    // is. A failed Open keeps the handles that it got; the next one uses them, Close frees them.
    int Open(const char* connStr, int len);
    // Frees everything; always 0.
    int Close();
    // Only SQL_ATTR_PARAMSET_SIZE is known; the number travels in the pointer.
    int Config(int attribute, void* value, int length);
    // Replaces the prepared statement and forgets its parameters. UTF-8, length in bytes.
    int Prepare(const char* sql, int len);
    // Binds the next parameter of the prepared statement: value k of the batch lies at values + k *
    // len, its length in bytes at lengths[k] (-1 for NULL). The values are copied. Binding is by
    // position; the name plays no part.
    int AddParam(const char* name, int nameLen, int dbType, const void* values, int len,
                 const int* lengths);
    // Runs the prepared statement. `rs`, when given, takes the statement over; `rowCount` may be
    // null.
    int Execute(IntDbResultSet* rs, int* rowCount);
    // Runs a text on a statement of its own.
    int Execute(const char* sql, int len, IntDbResultSet* rs, int* rowCount);
    int IsOpen() const { return m_isOpen; }

  private:
    int RequireOpen();
    int RequirePrepared();
    int FillParameter(_odbc_parameter_* p, int dbType, const void* values, int len,
                      const int* lengths);
    _odbc_parameter_* NextParameter();
    int ClearParameters();
    bool UndoLastExecution();
    bool BatchMatchesParameters();
    // Tells the prepared statement how many parameter sets it has.
    SQLRETURN SetSets(int sets);
    int HandOver(SQLHSTMT hstmt, IntDbResultSet* rs);
    int ReadRowCount(SQLHSTMT hstmt, int* rowCount);
    void DropPrepared();
    bool StatementPassed(SQLRETURN result, SQLHSTMT hstmt) {
        return Passed(result, nullptr, nullptr, hstmt);
    }

    SQLHENV m_henv = nullptr;
    SQLHDBC m_hdbc = nullptr;
    int m_isOpen = 0;
    ODBCAttributes m_odbcAttrs;
    SQLHSTMT m_preparedHstmt = nullptr;
    // The first m_parameterCount are bound, in the order of their numbers. The others are kept to
    // be used again: programs run the same statements many times.
    JavaVector<_odbc_parameter_> m_parameters;
    int m_parameterCount = 0;
    // The driver still holds addresses of parameter buffers that an execution has released.
    bool m_hasStaleBindings = false;
    // The driver may still count on more than one set: a batch failed, or putting the statement
    // back did.
    bool m_isBatched = false;
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

using IntDbSource = DbSource<ODBCSourceImpl, IntDbResultSet>;
