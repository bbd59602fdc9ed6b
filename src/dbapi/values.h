// Values on their way: from Python to parameters of a statement, from cells of a row to Python.
#pragma once

#include <cstdint>
#include <string_view>

#include "dbapi/cells.h"
#include "dbapi/failure.h"

// ODBC's types of times with a time zone, which are sent as texts.
constexpr SQLSMALLINT kZonedTime = 94;
constexpr SQLSMALLINT kZonedTimestamp = 95;

// A value to send, in the form in which it is bound.
struct Value {
    SQLSMALLINT cType = SQL_C_WCHAR;
    SQLSMALLINT sqlType = SQL_WVARCHAR;
    bool isNull = false;
    union {
        SQLBIGINT integer = 0;
        double real;
        SQLDATE date;
        SQL_DATE_STRUCT day;
        SQL_TIMESTAMP_STRUCT stamp;
    };
    std::string_view bytes;  // of texts and binary data, for which the union is not used
    PyRef keeper;            // of the bytes
};

// What is known of a connection that decides how values are sent.
struct Sending {
    bool toSqlite;    // it has no decimals: what would be rounded is refused
    bool keepsZones;  // of times, or says that it does not
};

// Reads a Python value, which may run any code. Throws what names the 1-based `position`.
Value ReadValue(PyObject* object, Py_ssize_t position, const Sending& sending);

// What the column's type adds to a cell's own.
enum class Meaning { Plain, Uuid };

// A cell of a row: its kind, and its value as the runtime writes it (UTF-8 texts, ODBC structs).
struct Cell {
    CellKind kind;
    std::string_view bytes;
};

// A new Python object; throws a Failure for a value that Python cannot hold exactly, and for what
// is no value at all.
PyRef MakeValue(const Cell& cell, Meaning meaning);

// Imports what is needed of Python's own types; false with an error set.
bool InitValues();
// The Python type that a column's SQL type is read as; borrowed.
PyObject* TypeOf(SQLSMALLINT sqlType, Meaning meaning);
