// The Cursor type. All cursors of a connection share its Dbs, and so its one current statement.
#pragma once

#include <memory>
#include <vector>

#include "include/connection.h"
#include "include/pyref.h"

struct RowPlan;
struct DeleteRowPlan {
    void operator()(RowPlan* plan) const;
};

// What CPython finds by its offset.
struct PyCursorFields {
    PyObject_HEAD PyConnection* Connection;  // strong; null once the cursor is closed
    PyObject* Description;                   // strong; null once the cursor is closed
    int ArraySize;
    int RowCount;
};

struct PyCursor : PyCursorFields {
    Dbs* dbs;  // the connection's; only to be used after CursorValidate
    // How the rows of the last result fetched from are read; empty before the first row.
    std::unique_ptr<RowPlan, DeleteRowPlan> Plan;
    // What Description was made of; empty while it is None.
    std::vector<ColumnDescription> Described;
};

extern PyTypeObject CursorType;

int InitCursorType(PyObject* module, const char* name, const char* doc);

// A cursor of a validated connection.
PyRef PyCursor_New(PyConnection* connection);
// The cursor behind `object`, or null with an error set. Any Python code that has run since the
// last call may have closed the cursor or its connection: call again before touching the provider.
PyCursor* CursorValidate(PyObject* object, bool checkConnOpen, bool checkResult);
// Lets the connection go and resets the attributes; always 0.
int PyCursor_Close(PyCursor* cursor);
// Replaces Description when the last statement has columns: 0, or -1 with an error set.
int BuildCursorDescription(PyCursor* cursor);

// The methods, each with its own file: cursor.cpp, execute.cpp, executemany.cpp, callproc.cpp,
// fetch.cpp.
PyRef PyCursor_Execute(PyObject* self, PyObject* args, PyObject* ignored);
// The same for arguments in an array, which the caller keeps alive.
PyRef ExecuteStatement(PyObject* self, PyObject* const* args, Py_ssize_t count);
PyRef PyCursor_ExecuteMany(PyObject* self, PyObject* args);
PyRef PyCursor_CallProc(PyObject* self, PyObject* args);
PyRef PyCursor_FetchOne(PyObject* self, PyObject* ignored);
PyRef PyCursor_FetchMany(PyObject* self, PyObject* args);
PyRef PyCursor_FetchAll(PyObject* self, PyObject* ignored);
PyRef PyCursor_Next(PyObject* self, PyObject* ignored);
PyObject* PyCursor_Iter(PyObject* self);
PyObject* PyCursor_IterNext(PyObject* self);
