// Dbs, the only door from the Python layer to the statement handle API: one handle, the last error,
// and a scratch buffer for names and texts.
#pragma once

#include <memory>

#include "include/cell.h"
#include "include/dbsapi.h"
#include "include/dbsource.h"

// A column as cursors show it: what GetColumnInfo tells but for its ColumnSize, in a record without
// any memory of its own.
struct ColumnDescription {
    char Name[128];  // terminated
    DBSSMALLINT DataType, Precision, Scale, IsNullable;

    bool operator==(const ColumnDescription& other) const;
};

class VORDA_EXPORT Dbs {
  public:
    Dbs();
    // Releases the scratch buffer only; Close comes first.
    ~Dbs();
    Dbs(const Dbs&) = delete;
    Dbs& operator=(const Dbs&) = delete;

    // Statuses are those of the DBS functions. Open to Execute record the error that they meet, for
    // GetLastError and GetLastErrorMessage.
    int Init();
    int Open(char* connStr, int len);
    // Disconnects and frees the handle, also after a failed Open; always 0.
    int Close();
    int SetBatchSize(int size);
    int CountPlaceholders(const char* sql, int& count);
    int Prepare(char* sql, int len);
    // `type` is a DB type code; for the rest see DBSBindParameter.
    int AddParam(int index, int type, void* data, int len, int* lenPtr);
    int Execute();
    int Execute(char* sql, int len);
    // The same for what is const: all of it is only read.
    int Open(const char* connStr, int len) { return Open(const_cast<char*>(connStr), len); }
    int Prepare(const char* sql, int len) { return Prepare(const_cast<char*>(sql), len); }
    int AddParam(int index, int type, const void* data, int len, const int* lenPtr) {
        return AddParam(index, type, const_cast<void*>(data), len, const_cast<int*>(lenPtr));
    }
    int Execute(const char* sql, int len) { return Execute(const_cast<char*>(sql), len); }

    // 1 for a row and for a failed fetch, which FetchFailed and the getters then tell; 0 at the
    // end.
    int Next();
    // Whether the last fetch failed; if so, its error becomes the last error.
    bool FetchFailed() { return lastFetch != VORDA_OK && ReadFetchError(); }
    int GetRowCount();
    // 0 without a result set.
    int GetColumnCount();
    DbColumnInfo GetColumnInfo(int index);
    void DescribeColumn(int index, ColumnDescription& description);

    // Where every fetch leaves a column's value; false without such a column.
    bool GetCell(int index, DbCell& cell);
    // Names the current result: what is known of an earlier one, its cells among it, holds no
    // longer once the number is another.
    unsigned long long GetResultNumber() const;

    // Values of the current row by 0-based column: 0, -1 for NULL, or a positive code.
    int GetInt(int i, int* v);
    int GetBigint(int i, long long* v);
    int GetDouble(int i, double* v);
    int GetDate(int i, _db_date_* v);
    int GetTime(int i, _db_time_* v);
    int GetDateTime(int i, _db_datetime_* v);
    // *out stays valid until the next name or text is read.
    int GetStringAsUTF8(int i, char** out, int* len);
    int GetStringAsUCS2(int i, char** out, int* len);

    int GetLastError();
    const char* GetLastErrorMessage();
    int IsOpen();
    int GetLastError() const { return errCode; }
    const char* GetLastErrorMessage() const { return errMsg; }
    int IsOpen() const { return opened; }

    void GetLastErrAndMsg();
    // Makes room for `size` bytes and a 2-byte terminator. The contents are lost when it grows;
    // for want of memory the buffer stays as it is.
    void ResizeBufferSize(int size);
    void ResizeBufferSizeInternal(int size);

  private:
    // Programs make objects of this class by its exported layout: nothing may be added.
    using ErrorReader = DBSRETURN (*)(DBSHANDLE, DBSINTEGER*, DBSCHAR*, DBSSMALLINT*);
    DBSRETURN ReadError(ErrorReader read);
    int Captured(int status);
    bool ReadFetchError();
    int ReadText(int i, char** out, int* len);

    DBSHANDLE handler = nullptr;
    int opened = 0;
    char errMsg[512] = {};
    int errCode = 0;
    std::unique_ptr<char[]> buffer;
    int currentBufferSize;
    int lastFetch = 0;  // where the compiler would leave a gap
};
