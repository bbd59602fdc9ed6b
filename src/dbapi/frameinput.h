// Foreign Arrow data as a Python object, which executemany takes.
#pragma once

#include "dbapi/framereader.h"

// ArrowInput(data): data of which one wants to know the columns before they are read.
extern PyTypeObject ArrowInputType;

struct Input {
    std::unique_ptr<ForeignStream> stream;
    PyRef inArrays;  // a statement for many rows, which takes one array for each column; or null
};

// The stream in an object that has one, or is an ArrowInput, whose it then is no more; else none.
Input InputOf(PyObject* object);
