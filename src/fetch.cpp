// Reading operations of a cursor: one provider row at a time.
#include <climits>

#include "include/cursor.h"
#include "include/errors.h"
#include "include/row.h"

namespace {

// A cursor that was closed while its row was made keeps the attributes of a closed one.
void CountRow(PyCursor* cursor) {
    if (cursor->Connection != nullptr && cursor->RowCount < INT_MAX) ++cursor->RowCount;
}

// The next row, or `atEnd` behind the last one; empty with an error set.
PyRef FetchRow(PyObject* self, PyRef (*atEnd)()) {
    PyCursor* const cursor = CursorValidate(self, true, true);
    if (cursor == nullptr) return PyRef();
    if (!cursor->dbs->Next()) return atEnd();
    CountRow(cursor);
    return PyRow_New(cursor);
}

// Whether everything that CursorValidate looks at is as it was for the result of this number: a
// closed cursor and a closed connection have let go of what is asked here.
bool StillReads(const PyCursor* cursor, unsigned long long resultNumber) {
    return cursor->Connection != nullptr && cursor->Connection->dbs != nullptr &&
           cursor->Connection->dbs->GetResultNumber() == resultNumber;
}

PyRef Fetch(PyCursor* cursor, Py_ssize_t maxRows) {
    const unsigned long long number = cursor->dbs->GetResultNumber();
    PyRef rows(PyList_New(0));
    if (!rows || (maxRows < 1 && maxRows != -1)) return rows;
    const auto self = reinterpret_cast<PyObject*>(cursor);
    for (Py_ssize_t left = maxRows; left != 0; left -= maxRows != -1) {
        // Making the last row may have run code that closed the cursor or its connection.
        if (!StillReads(cursor, number) && CursorValidate(self, true, true) == nullptr) {
            return PyRef();
        }
        if (!cursor->dbs->Next()) break;
        const PyRef row = PyRow_New(cursor);
        if (!row || PyList_Append(rows.Get(), row.Get()) < 0) return PyRef();
        CountRow(cursor);
    }
    return rows;
}

}  // namespace

PyRef PyCursor_FetchOne(PyObject* self, PyObject*) {
    return FetchRow(self, [] { return PyRef::Borrow(Py_None); });
}

PyRef PyCursor_FetchMany(PyObject* self, PyObject* args) {
    if (CursorValidate(self, true, true) == nullptr) return PyRef();
    long size = -1;
    // Parsing may run the argument's __index__, and that may close anything.
    if (!PyArg_ParseTuple(args, "|l:fetchmany", &size)) return PyRef();
    PyCursor* const cursor = CursorValidate(self, true, true);
    if (cursor == nullptr) return PyRef();
    return Fetch(cursor, size == -1 ? cursor->ArraySize : size);
}

// Honours arraysize: only its initial -1 means everything.
PyRef PyCursor_FetchAll(PyObject* self, PyObject*) {
    PyCursor* const cursor = CursorValidate(self, true, true);
    return cursor != nullptr ? Fetch(cursor, cursor->ArraySize) : PyRef();
}

PyRef PyCursor_Next(PyObject* self, PyObject*) {
    return FetchRow(self, [] {
        return Raise(PyExc_StopIteration,
                     "attempt to fetch next row when there is no rows anymore");
    });
}

PyObject* PyCursor_Iter(PyObject* self) {
    Py_INCREF(self);
    return self;
}

PyObject* PyCursor_IterNext(PyObject* self) {
    return CalledFromPython<PyObject*>(nullptr, [&] {
        return FetchRow(
                   self,
                   [] { return Raise(PyExc_StopIteration, "Cursor object has no more rows."); })
            .Release();
    });
}
