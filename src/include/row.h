// The Row type: one fetched row, a sequence of values and a mapping from column names to them.
#pragma once

#include "include/cursor.h"

struct _py_row {
    PyObject_HEAD int columns;
    int encoding;           // the connection's
    PyObject* Description;  // strong: the cursor's at the time of the fetch
    PyObject** values;      // `columns` strong references, in the room behind this structure
};
using PyRow = _py_row;

extern PyTypeObject RowType;

int InitRowType(PyObject* module, const char* name, const char* doc);

// A row made of the provider's current one, or empty with an error set. The cursor is validated and
// its result set has columns.
PyRef PyRow_New(PyCursor* cursor);
