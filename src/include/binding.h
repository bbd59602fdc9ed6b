// What execute and executemany share: the Python types that can be parameters.
#pragma once

#include "include/pyref.h"

enum class ParamKind { Text, Int, Float, DateTime, Date, Time, None, Unsupported };

// The first kind that fits; a subclass counts as its base. A bool is an int, and a datetime is no
// date.
ParamKind ParamKindOf(PyObject* value);
