// The statement handle API: a small ODBC-shaped layer over one opaque handle, which stands for a
// connection and its single current statement at once. All text is NUL-terminated UTF-8. Every
// function returns 0, a module code, or -1 for an ODBC failure; none lets an exception out. Handles
// are not safe for use by two threads at a time.
#pragma once

#include "util/def.h"

struct _dbhandler;
struct _db_cell_;
using DB_HANDLER = _dbhandler;
using DBSHANDLE = _dbhandler*;
using DBSHDBC = _dbhandler*;
using DBSHSTMT = _dbhandler*;
using DBSRETURN = int;
using DBSSMALLINT = short;
using DBSUSMALLINT = unsigned short;
using DBSINTEGER = long long;
using DBSLEN = int;
using DBSULEN = unsigned int;
using DBSCHAR = char;
using DBSPOINTER = void*;

extern "C" {

// Only handle type 2 is served: a new handle, not connected, owned by the caller. Any other type
// answers 0 and leaves *outputHandle alone.
VORDA_EXPORT DBSRETURN DBSAllocHandle(DBSSMALLINT handleType, DBSHANDLE inputHandle,
                                      DBSHANDLE* outputHandle);
// Frees the handle and its result set. Does not disconnect: call DBSDisconnect first.
VORDA_EXPORT DBSRETURN DBSFreeHandle(DBSSMALLINT handleType, DBSHANDLE handle);
VORDA_EXPORT DBSRETURN DBSDriverConnect(DBSHDBC hdbc, const DBSCHAR* szConnStrIn,
                                        DBSSMALLINT cbConnStrIn);
// Ends the result set and the connection. The handle stays, but can no longer connect.
VORDA_EXPORT DBSRETURN DBSDisconnect(DBSHDBC connectionHandle);
// Only attribute 22, the parameter-set size, is known; the number travels in the pointer.
VORDA_EXPORT DBSRETURN DBSSetStmtAttr(DBSHSTMT statementHandle, DBSINTEGER attribute,
                                      DBSPOINTER value, DBSINTEGER stringLength);
// Normalises and prepares the text. textLength plays no part; paramCount, when given, receives the
// number of markers.
VORDA_EXPORT DBSRETURN DBSPrepare(DBSHSTMT statementHandle, const DBSCHAR* statementText,
                                  DBSINTEGER textLength, DBSLEN* paramCount);
// Tells how many values the text takes, without preparing it: the count of its markers.
VORDA_EXPORT DBSRETURN DBSCountPlaceholders(DBSHSTMT statementHandle, const DBSCHAR* statementText,
                                            DBSLEN* count);
// Binds the next parameter by position; fCType carries its DB type code, cbValueMax is the distance
// from one value of a batch to the next, pcbValue has one length a set (-1 for NULL). The values
// are copied. An ODBC failure answers 0; its text is readable through DBSError.
VORDA_EXPORT DBSRETURN DBSBindParameter(DBSHSTMT hstmt, DBSUSMALLINT ipar, DBSSMALLINT fParamType,
                                        DBSSMALLINT fCType, DBSSMALLINT fSqlType, DBSULEN cbColDef,
                                        DBSSMALLINT ibScale, const void* rgbValue,
                                        DBSLEN cbValueMax, const DBSLEN* pcbValue);
// Runs the prepared statement; the previous result set ends before it runs.
VORDA_EXPORT DBSRETURN DBSExecute(DBSHSTMT statementHandle);
// Normalises the text and runs it directly.
VORDA_EXPORT DBSRETURN DBSExecDirect(DBSHSTMT statementHandle, const DBSCHAR* statementText,
                                     DBSINTEGER textLength);
// The affected rows of the last execution; 0 for a statement with a result set.
VORDA_EXPORT DBSRETURN DBSRowCount(DBSHSTMT statementHandle, DBSLEN* rowCount);
// The columns of the result set; -1, also as the status, when there is none.
VORDA_EXPORT DBSRETURN DBSNumResultCols(DBSHSTMT statementHandle, DBSSMALLINT* columnCount);
// Describes a 0-based column. columnName may be null and otherwise takes 128 bytes with the
// terminator; nameLength receives the whole name's length. Past the last column everything is
// empty.
VORDA_EXPORT DBSRETURN DBSDescribeCol(DBSHSTMT statementHandle, DBSINTEGER columnNumber,
                                      DBSCHAR* columnName, DBSSMALLINT* nameLength,
                                      DBSSMALLINT* dataType, DBSULEN* columnSize,
                                      DBSSMALLINT* precision, DBSSMALLINT* decimalDigits,
                                      DBSSMALLINT* nullable);
// Reads a value of the current row in the form that targetType, a DB type code, stands for: 0, -1
// for NULL, or a positive code. For text (13, 16) *strLen_or_Ind receives the length in bytes and
// targetValue, when given, twice as many bytes; call with a null targetValue first to learn the
// length.
VORDA_EXPORT DBSRETURN DBSGetData(DBSHSTMT statementHandle, DBSINTEGER columnNumber,
                                  DBSSMALLINT targetType, DBSPOINTER targetValue,
                                  DBSINTEGER bufferLength, DBSLEN* strLen_or_Ind);
// Where every fetch leaves the value of a 0-based column: 0, 1104 without a result set, or 1106.
// Valid until the next execution; see include/cell.h.
VORDA_EXPORT DBSRETURN DBSGetCell(DBSHSTMT statementHandle, DBSINTEGER columnNumber,
                                  _db_cell_* cell);
// Fetches a row: 0, 100 for no more data, else a code.
VORDA_EXPORT DBSRETURN DBSFetch(DBSHSTMT statementHandle);
// The data source's last error. textLength is required when messageText is given; a null
// messageText learns the length, without the terminator.
VORDA_EXPORT DBSRETURN DBSError(DBSHDBC connectionHandle, DBSINTEGER* nativeError,
                                DBSCHAR* messageText, DBSSMALLINT* textLength);
// The same for a fetch that failed: answers 0 only when the last fetch did, else 100.
VORDA_EXPORT DBSRETURN DBSFetchError(DBSHSTMT statementHandle, DBSINTEGER* nativeError,
                                     DBSCHAR* messageText, DBSSMALLINT* textLength);
// Does nothing; completes the interface.
VORDA_EXPORT DBSRETURN DBSGetDiagField(DBSSMALLINT handleType, DBSHANDLE handle,
                                       DBSSMALLINT recNumber, DBSSMALLINT diagIdentifier,
                                       DBSPOINTER diagInfo, DBSSMALLINT bufferLength,
                                       DBSSMALLINT* stringLength);

}  // extern "C"
