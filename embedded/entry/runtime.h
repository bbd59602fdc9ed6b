/// The functions of this runtime.
///
/// Each is the function of the ODBC standard with the same name behind "RT_", and takes in front of
/// the standard arguments the path of the library that calls it, which is not used.
///
/// `extensions.h` has what goes beyond the standard.
///
/// All texts are UTF-8 with lengths in bytes, in both directions, in the wide functions (…W) too:
/// there SQLWCHAR* stands for the same 8-bit text as SQLCHAR* does in the narrow ones, and
/// SQL_C_WCHAR for the same data as SQL_C_CHAR. Each pair is therefore one function under two
/// names; the declarations say SQLCHAR* where the standard's say SQLWCHAR*.
#pragma once

#include <sql.h>
#include <sqlext.h>

/// A statement attribute of this runtime: the number (64 bits, signed) that SQLite gave to the row
/// which the last execution inserted, of several the last one; SQL_NO_DATA when there is none.
constexpr SQLINTEGER SQL_ATTR_VORDA_LAST_ROWID = 0x7001;

#define RT_FUNCTION(name, ...)                        \
    extern "C" __attribute__((visibility("default"))) \
    SQLRETURN RT_##name(const char* driverPath, ##__VA_ARGS__)

/// A function of the table below and its wide twin.
#define RT_FUNCTION_PAIR(name, ...) \
    RT_FUNCTION(name, __VA_ARGS__); \
    RT_FUNCTION(name##W, __VA_ARGS__)

/// Defines the wide twin of a function as the same function; to stand in the file that defines it.
#define RT_WIDE_IS_NARROW(name)                      \
    extern "C" __attribute__((visibility("default"), \
                              alias("RT_" #name))) decltype(RT_##name) RT_##name##W

/// Version of the runtime interface.
extern "C" __attribute__((visibility("default"))) int RT_Version();

// Handles, connections, transactions
RT_FUNCTION(SQLAllocHandle, SQLSMALLINT type, SQLHANDLE input, SQLHANDLE* output);
RT_FUNCTION(SQLFreeHandle, SQLSMALLINT type, SQLHANDLE handle);
RT_FUNCTION(SQLFreeStmt, SQLHSTMT statement, SQLUSMALLINT option);
RT_FUNCTION_PAIR(SQLDriverConnect, SQLHDBC connection, SQLHWND window, SQLCHAR* text,
                 SQLSMALLINT textLength, SQLCHAR* completed, SQLSMALLINT completedCapacity,
                 SQLSMALLINT* completedLength, SQLUSMALLINT completion);
RT_FUNCTION(SQLDisconnect, SQLHDBC connection);
RT_FUNCTION(SQLEndTran, SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT completion);

// Attributes and information
RT_FUNCTION(SQLSetEnvAttr, SQLHENV environment, SQLINTEGER attribute, SQLPOINTER value,
            SQLINTEGER length);
RT_FUNCTION(SQLGetEnvAttr, SQLHENV environment, SQLINTEGER attribute, SQLPOINTER value,
            SQLINTEGER capacity, SQLINTEGER* length);
RT_FUNCTION_PAIR(SQLSetConnectAttr, SQLHDBC connection, SQLINTEGER attribute, SQLPOINTER value,
                 SQLINTEGER length);
RT_FUNCTION_PAIR(SQLGetConnectAttr, SQLHDBC connection, SQLINTEGER attribute, SQLPOINTER value,
                 SQLINTEGER capacity, SQLINTEGER* length);
RT_FUNCTION_PAIR(SQLSetStmtAttr, SQLHSTMT statement, SQLINTEGER attribute, SQLPOINTER value,
                 SQLINTEGER length);
RT_FUNCTION_PAIR(SQLGetStmtAttr, SQLHSTMT statement, SQLINTEGER attribute, SQLPOINTER value,
                 SQLINTEGER capacity, SQLINTEGER* length);
RT_FUNCTION_PAIR(SQLGetInfo, SQLHDBC connection, SQLUSMALLINT type, SQLPOINTER value,
                 SQLSMALLINT capacity, SQLSMALLINT* length);

// Statements
RT_FUNCTION_PAIR(SQLPrepare, SQLHSTMT statement, SQLCHAR* sql, SQLINTEGER length);
RT_FUNCTION(SQLExecute, SQLHSTMT statement);
RT_FUNCTION_PAIR(SQLExecDirect, SQLHSTMT statement, SQLCHAR* sql, SQLINTEGER length);
RT_FUNCTION(SQLNumParams, SQLHSTMT statement, SQLSMALLINT* count);
RT_FUNCTION(SQLDescribeParam, SQLHSTMT statement, SQLUSMALLINT number, SQLSMALLINT* sqlType,
            SQLULEN* size, SQLSMALLINT* digits, SQLSMALLINT* nullable);
RT_FUNCTION(SQLBindParameter, SQLHSTMT statement, SQLUSMALLINT number, SQLSMALLINT direction,
            SQLSMALLINT cType, SQLSMALLINT sqlType, SQLULEN size, SQLSMALLINT digits,
            SQLPOINTER value, SQLLEN capacity, SQLLEN* indicator);
RT_FUNCTION(SQLRowCount, SQLHSTMT statement, SQLLEN* count);
RT_FUNCTION(SQLCancel, SQLHSTMT statement);

// Results
RT_FUNCTION(SQLNumResultCols, SQLHSTMT statement, SQLSMALLINT* count);
RT_FUNCTION_PAIR(SQLDescribeCol, SQLHSTMT statement, SQLUSMALLINT column, SQLCHAR* name,
                 SQLSMALLINT nameCapacity, SQLSMALLINT* nameLength, SQLSMALLINT* sqlType,
                 SQLULEN* size, SQLSMALLINT* digits, SQLSMALLINT* nullable);
RT_FUNCTION_PAIR(SQLColAttribute, SQLHSTMT statement, SQLUSMALLINT column, SQLUSMALLINT field,
                 SQLPOINTER text, SQLSMALLINT capacity, SQLSMALLINT* length, SQLLEN* number);
RT_FUNCTION(SQLBindCol, SQLHSTMT statement, SQLUSMALLINT column, SQLSMALLINT cType,
            SQLPOINTER target, SQLLEN capacity, SQLLEN* indicator);
RT_FUNCTION(SQLFetch, SQLHSTMT statement);
RT_FUNCTION(SQLGetData, SQLHSTMT statement, SQLUSMALLINT column, SQLSMALLINT cType,
            SQLPOINTER target, SQLLEN capacity, SQLLEN* indicator);
RT_FUNCTION(SQLSetPos, SQLHSTMT statement, SQLSETPOSIROW row, SQLUSMALLINT operation,
            SQLUSMALLINT lock);
RT_FUNCTION(SQLMoreResults, SQLHSTMT statement);
RT_FUNCTION(SQLCloseCursor, SQLHSTMT statement);

// Diagnostics
RT_FUNCTION_PAIR(SQLGetDiagRec, SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT number,
                 SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message, SQLSMALLINT capacity,
                 SQLSMALLINT* length);
RT_FUNCTION_PAIR(SQLGetDiagField, SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT number,
                 SQLSMALLINT field, SQLPOINTER value, SQLSMALLINT capacity, SQLSMALLINT* length);
RT_FUNCTION_PAIR(SQLError, SQLHENV environment, SQLHDBC connection, SQLHSTMT statement,
                 SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message, SQLSMALLINT capacity,
                 SQLSMALLINT* length);

// Catalogue
RT_FUNCTION_PAIR(SQLTables, SQLHSTMT statement, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                 SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table, SQLSMALLINT tableLength,
                 SQLCHAR* types, SQLSMALLINT typesLength);
RT_FUNCTION_PAIR(SQLColumns, SQLHSTMT statement, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                 SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table, SQLSMALLINT tableLength,
                 SQLCHAR* column, SQLSMALLINT columnLength);
RT_FUNCTION_PAIR(SQLPrimaryKeys, SQLHSTMT statement, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                 SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table,
                 SQLSMALLINT tableLength);
RT_FUNCTION_PAIR(SQLForeignKeys, SQLHSTMT statement, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                 SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table, SQLSMALLINT tableLength,
                 SQLCHAR* foreignCatalog, SQLSMALLINT foreignCatalogLength, SQLCHAR* foreignSchema,
                 SQLSMALLINT foreignSchemaLength, SQLCHAR* foreignTable,
                 SQLSMALLINT foreignTableLength);
RT_FUNCTION_PAIR(SQLStatistics, SQLHSTMT statement, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                 SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* table, SQLSMALLINT tableLength,
                 SQLUSMALLINT uniqueness, SQLUSMALLINT accuracy);
RT_FUNCTION_PAIR(SQLProcedures, SQLHSTMT statement, SQLCHAR* catalog, SQLSMALLINT catalogLength,
                 SQLCHAR* schema, SQLSMALLINT schemaLength, SQLCHAR* procedure,
                 SQLSMALLINT procedureLength);
RT_FUNCTION_PAIR(SQLGetTypeInfo, SQLHSTMT statement, SQLSMALLINT type);
