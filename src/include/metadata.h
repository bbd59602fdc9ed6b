// What the Python layer learns from a statement's text.
#pragma once

#include "include/pyref.h"

// The values of `dict`, in the order of the statement's markers: 0 and a new tuple in *tupleParams,
// or -1 with an error set. A marker's key is its text without the first character; "?" has the key
// "". The statement is NUL-terminated UTF-8.
int FlattenDictParameters(const char* sql, PyObject* dict, PyObject** tupleParams);

// Compares the values that are given for a statement with its markers. The tokenizer and the
// database may disagree about where texts, names and comments end; what is then taken for a marker
// would be changed inside them, and seldom is there a value for it. So a count that differs raises
// a RuntimeWarning, which quotes the text around the first marker that has no value. Looks whether
// the cursor is usable, before and behind the warning: false with an error set.
bool CompareMarkers(PyObject* cursor, const char* sql, Py_ssize_t values);
