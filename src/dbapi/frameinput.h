// Foreign Arrow data as a Python object, which executemany takes.
#pragma once

#include "dbapi/framereader.h"

// ArrowInput(data): data of which one wants to know the columns before they are read.
extern PyTypeObject ArrowInputType;

// The stream in an object that has one, or is an ArrowInput, whose it then is no more; else null.
std::unique_ptr<ForeignStream> InputOf(PyObject* object);
