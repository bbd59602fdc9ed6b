#include "include/connection.h"

#include "include/conversion.h"
#include "include/cursor.h"
#include "include/errors.h"
#include "include/modulecore.h"

namespace {

PyConnection* AsConnection(PyObject* object) {
    return reinterpret_cast<PyConnection*>(object);
}

PyRef PyConnection_Cursor(PyObject* self, PyObject*) {
    PyConnection* const connection = ConnectionValidate(self);
    return connection != nullptr ? PyCursor_New(connection) : PyRef();
}

PyRef PyConnection_CloseMethod(PyObject* self, PyObject*) {
    PyConnection* const connection = ConnectionValidate(self);
    if (connection == nullptr) return PyRef();
    PyConnection_Close(connection);
    return PyRef::Borrow(Py_None);
}

// Statements take effect as the provider executes them: there is nothing to send.
PyRef PyConnection_Commit(PyObject* self, PyObject*) {
    return ConnectionValidate(self) != nullptr ? PyRef::Borrow(Py_None) : PyRef();
}

PyRef PyConnection_Execute(PyObject* self, PyObject* args) {
    PyConnection* const connection = ConnectionValidate(self);
    if (connection == nullptr) return PyRef();
    const PyRef cursor = PyCursor_New(connection);
    return cursor ? PyCursor_Execute(cursor.Get(), args, nullptr) : PyRef();
}

void PyConnection_Dealloc(PyObject* self) {
    PyConnection_Close(AsConnection(self));
    PyObject_Free(self);
}

PyMethodDef PyConnection_Methods[] = {
    {"cursor", AsMethod<PyConnection_Cursor>, METH_NOARGS,
     "cursor() --> Cursor\n\n"
     "Return a new Cursor Object using the connection."},
    {"close", AsMethod<PyConnection_CloseMethod>, METH_NOARGS,
     "close() --> None\n\n"
     "Close the connection now (rather than whenever .__del__() is called).\n\n"
     "The connection will be unusable from this point forward; an Error (or subclass)\n"
     "exception will be raised if any operation is attempted with the connection. The\n"
     "same applies to all cursor objects trying to use the connection."},
    {"execute", AsMethod<PyConnection_Execute>, METH_VARARGS,
     "execute(sql, [params]) --> Cursor\n\n"
     "Create a new Cursor object, call its execute method, and return it.  See\n"
     "Cursor.execute for more details.\n\n"
     "This is a convenience method that is not part of the DB API.  Since a new\n"
     "Cursor is allocated by each call, this should not be used if more than one\n"
     "SQL statement needs to be executed."},
    {"commit", AsMethod<PyConnection_Commit>, METH_NOARGS,
     "commit() --> None\n\n"
     "Commit any pending transaction to the database."},
    {nullptr, nullptr, 0, nullptr},
};

PyRef Connect(PyObject* args) {
    const Py_ssize_t count = args != nullptr ? PyTuple_GET_SIZE(args) : 0;
    if (count == 0) {
        return Raise(ProgrammingError, "Attempt to connect without a connection string");
    }
    if (count > 1) {
        return Raise(ProgrammingError, "Function takes at most 1 non-keyword argument");
    }
    PyObject* const argument = PyTuple_GET_ITEM(args, 0);
    const auto connStr = AsUtf8(argument);
    if (!connStr) {
        return Raise(ProgrammingError, "The parameter should be valid connection string");
    }
    if (connStr->IsTruncated() && !WarnAboutNul(argument, "connection string", 0)) return PyRef();

    PyRef object = PyConnection_New();
    if (!object) {
        return RaiseFromCurrent(DatabaseError, "fail to create valid connection");
    }
    Dbs& dbs = *AsConnection(object.Get())->dbs;
    if (const int status = dbs.Open(connStr->Deref(), connStr->Length()); status != VORDA_OK) {
        return RaiseProviderError(dbs, status);
    }
    return object;
}

}  // namespace

PyTypeObject ConnectionType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_basicsize = sizeof(PyConnection),
    .tp_dealloc = PyConnection_Dealloc,
    .tp_flags = Py_TPFLAGS_DEFAULT,
    .tp_methods = PyConnection_Methods,
};

int InitConnectionType(PyObject* module, const char* name, const char* doc) {
    return InitType(ConnectionType, module, "Connection", name, doc);
}

PyObject* VordaModule_Connect(PyObject*, PyObject* args, PyObject*) {
    return CalledFromPython<PyObject*>(nullptr, [&] { return Connect(args).Release(); });
}

PyRef PyConnection_New() {
    PyRef object(reinterpret_cast<PyObject*>(PyObject_New(PyConnection, &ConnectionType)));
    if (!object) return object;
    PyConnection* const connection = AsConnection(object.Get());
    connection->encoding = 1;
    connection->dbs = nullptr;
    try {
        connection->dbs = new Dbs();
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return PyRef();
    }
    if (const int status = connection->dbs->Init(); status != VORDA_OK) {
        return RaiseProviderError(*connection->dbs, status);
    }
    return object;
}

int PyConnection_Close(_py_connection* connection) {
    if (connection == nullptr || connection->dbs == nullptr) return 0;
    connection->dbs->Close();
    delete connection->dbs;
    connection->dbs = nullptr;
    return 0;
}

_py_connection* ConnectionValidate(PyObject* object) {
    if (!PyObject_TypeCheck(object, &ConnectionType)) {
        Raise(InternalError, "Connection object required");
        return nullptr;
    }
    PyConnection* const connection = AsConnection(object);
    if (connection->dbs == nullptr || !connection->dbs->IsOpen()) {
        Raise(ProgrammingError, "attempt to use a closed connection");
        return nullptr;
    }
    return connection;
}
