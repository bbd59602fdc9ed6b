// The maps between DB type codes, ODBC C types and ODBC SQL types. Each gives its default for a
// value that it does not know.
#pragma once

int DbTypeToODBCType(int dbType);
int ODBCTypeToDbType(int odbcCType);
int ODBCTypeToSQLType(int odbcCType);
int SQLTypeToODBCType(int sqlType);
// Bytes of a fixed-size ODBC C type, or `defaultSize` for one without a size of its own.
int ODBCTypeSize(int odbcCType, int defaultSize);
