// What the module object holds besides its types and exceptions.
#pragma once

#include "include/pyref.h"

// Imports the datetime C API and adds the DB-API type objects and constructors: 0, or -1 with an
// error set.
int InitTypeObjectAndConstructors(PyObject* module);
// Adds threadsafety, apilevel and paramstyle; 0.
int InitModuleAttr(PyObject* module);
// Readies a static type under `name` and `doc` and adds it as `attribute`: 0, or -1 with an error
// set.
int InitType(PyTypeObject& type, PyObject* module, const char* attribute, const char* name,
             const char* doc);
