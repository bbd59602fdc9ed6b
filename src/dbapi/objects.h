// The Python types Connection and Cursor, which the face extends.
#pragma once

#include <memory>
#include <vector>

#include "dbapi/link.h"

struct ConnectionObject {
    PyObject ob_base;
    PyObject* weakReferences;
    PyObject* rowFactory;
    std::shared_ptr<Link> link;
};

struct CursorObject {
    PyObject ob_base;
    PyObject* weakReferences;
    ConnectionObject* connection;  // null once closed
    PyObject* rowFactory;
    PyObject* makeRow;  // what the factory gave for this result, or null
    PyObject* messages;
    Py_ssize_t arraySize;
    SQLLEN rowCount;
    bool isBusy;  // in a call; may be one of another thread
    std::shared_ptr<Link> link;
    std::unique_ptr<Statement> statement;
    std::vector<Value> values;
};

extern PyTypeObject ConnectionType;
extern PyTypeObject CursorType;

// The link of an open connection; throws for one that was never opened.
Link& LinkOf(PyObject* connection);
// A new cursor of the type that the face has registered.
PyRef NewCursor(PyObject* connection);
