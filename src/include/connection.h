// The Connection type: the owner of one open provider connection.
#pragma once

#include "include/dbs.h"
#include "include/pyref.h"

struct _py_connection {
    PyObject_HEAD int encoding;  // 1: text is UTF-8
    Dbs* dbs;                    // owned; null once the connection is closed
};
using PyConnection = _py_connection;

extern PyTypeObject ConnectionType;

int InitConnectionType(PyObject* module, const char* name, const char* doc);

// connect(connection_string): a new Connection. Keyword arguments are ignored.
PyObject* VordaModule_Connect(PyObject* self, PyObject* args, PyObject* kwargs);
// A Connection that is not open yet, or empty with an error set.
PyRef PyConnection_New();
// Closes the provider connection, if there is one; always 0.
int PyConnection_Close(_py_connection* connection);
// The usable connection behind `object`, or null with an error set.
_py_connection* ConnectionValidate(PyObject* object);
