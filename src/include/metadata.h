// What the Python layer learns from a statement's text.
#pragma once

#include "include/pyref.h"

// The values of `dict`, in the order of the statement's markers: 0 and a new tuple in *tupleParams,
// or -1 with an error set. A marker's key is its text without the first character; "?" has the key
// "". The statement is NUL-terminated UTF-8.
int FlattenDictParameters(const char* sql, PyObject* dict, PyObject** tupleParams);
