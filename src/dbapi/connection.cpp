// The Python type Connection.
#include <cmath>
#include <new>

#include "dbapi/objects.h"

namespace {

ConnectionObject* Self(PyObject* object) {
    return reinterpret_cast<ConnectionObject*>(object);
}

// The driver counts in seconds: a part of one is one.
long WholeSeconds(double seconds) {
    constexpr double kMost = 1e9;
    if (!(seconds >= 0 && seconds <= kMost))
        throw Failure("HY090", "The timeout is negative, or no number of seconds.");
    return static_cast<long>(std::ceil(seconds));
}

PyObject* New(PyTypeObject* type, PyObject*, PyObject*) {
    PyObject* const object = type->tp_alloc(type, 0);
    if (!object) return nullptr;
    new (&Self(object)->link) std::shared_ptr<Link>();
    Py_INCREF(Py_None);
    Self(object)->rowFactory = Py_None;
    return object;
}

int Init(PyObject* self, PyObject* args, PyObject*) {
    return AtBoundary(-1, [&] {
        PyObject* given = nullptr;
        Py_ssize_t length = 0;
        int autocommit = 0;
        double timeout = 0;
        if (!PyArg_ParseTuple(args, "Upd", &given, &autocommit, &timeout)) return -1;
        const char* const text = PyUnicode_AsUTF8AndSize(given, &length);
        if (!text) {
            if (!PyErr_ExceptionMatches(PyExc_UnicodeError)) return -1;
            PyErr_Clear();
            throw Failure("42000", "The connection string has a lone surrogate.");
        }
        if (Self(self)->link) throw Failure("08002", "The connection is open already.");
        const long seconds = WholeSeconds(timeout);
        const std::shared_ptr<Connecting> made =
            Connect(std::string(text, static_cast<size_t>(length)), autocommit != 0, seconds);
        // A signal's handler may have been faster.
        if (Self(self)->link) throw Failure("08002", "The connection is open already.");
        const std::string warning = made->warning;
        Self(self)->link = std::make_shared<Link>(*made, autocommit != 0, seconds);
        if (warning.empty()) return 0;
        return PyErr_WarnEx(PyExc_UserWarning, warning.c_str(), 2);
    });
}

int Traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Self(self)->rowFactory);
    return 0;
}

int Clear(PyObject* self) {
    Py_CLEAR(Self(self)->rowFactory);
    return 0;
}

void Dealloc(PyObject* self) {
    PyObject_GC_UnTrack(self);
    if (Self(self)->weakReferences) PyObject_ClearWeakRefs(self);
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    Self(self)->link.~shared_ptr();
    PyErr_Restore(type, value, trace);
    Clear(self);
    Py_TYPE(self)->tp_free(self);
}

PyRef Close(PyObject* self, PyObject*) {
    if (Self(self)->link) Self(self)->link->Close();
    return PyRef::Borrow(Py_None);
}

PyRef Commit(PyObject* self, PyObject*) {
    LinkOf(self).Commit(true);
    return PyRef::Borrow(Py_None);
}

PyRef Rollback(PyObject* self, PyObject*) {
    LinkOf(self).Commit(false);
    return PyRef::Borrow(Py_None);
}

PyRef Cancel(PyObject* self, PyObject*) {
    const std::shared_ptr<Link> link = Self(self)->link;
    if (link && !link->IsInherited()) {
        const Unlocked unlocked;
        link->Cancel();
    }
    return PyRef::Borrow(Py_None);
}

PyMethodDef Methods[] = {
    {"close", Adapted<Close>, METH_NOARGS,
     "close($self, /)\n--\n\nRoll back, and close the connection. Further calls do nothing."},
    {"commit", Adapted<Commit>, METH_NOARGS, "commit($self, /)\n--\n\nMake what was changed last."},
    {"rollback", Adapted<Rollback>, METH_NOARGS,
     "rollback($self, /)\n--\n\nUndo what was changed since the last commit. Rows that were not "
     "read yet are gone."},
    {"cancel", Adapted<Cancel>, METH_NOARGS,
     "cancel($self, /)\n--\n\nEnd the statement that runs, if one does; its call raises "
     "OperationalError. For any thread."},
    {nullptr, nullptr, 0, nullptr},
};

PyObject* GetAutocommit(PyObject* self, void*) {
    return AtBoundary<PyObject*>(
        nullptr, [&] { return PyBool_FromLong(LinkOf(self).Autocommit() ? 1 : 0); });
}

int SetAutocommit(PyObject* self, PyObject* value, void*) {
    return AtBoundary(-1, [&] {
        const int on = value ? PyObject_IsTrue(value) : 0;
        if (on < 0) return -1;
        Link& link = LinkOf(self);
        link.RefuseInBatch();
        const Link::Turn turn(link);
        link.FinishUndo();
        if ((on != 0) == link.Autocommit()) return 0;
        if (link.InTransaction()) {
            throw Failure("HY011",
                          "autocommit cannot be changed inside a transaction: commit or roll back "
                          "first.");
        }
        link.SetAutocommit(on != 0);
        return 0;
    });
}

PyObject* InTransaction(PyObject* self, void*) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        const Link::Turn turn(LinkOf(self));
        return PyBool_FromLong(LinkOf(self).InTransaction() ? 1 : 0);
    });
}

PyObject* Dbms(PyObject* self, void*) {
    return AtBoundary<PyObject*>(
        nullptr, [&] { return PyUnicode_FromString(LinkOf(self).Behind().product.c_str()); });
}

PyObject* GetTimeout(PyObject* self, void*) {
    return AtBoundary<PyObject*>(nullptr,
                                 [&] { return PyLong_FromLong(LinkOf(self).Behind().timeout); });
}

int SetTimeout(PyObject* self, PyObject* value, void*) {
    return AtBoundary(-1, [&] {
        const double seconds = value && value != Py_None ? PyFloat_AsDouble(value) : 0;
        if (PyErr_Occurred()) return -1;
        LinkOf(self).SetTimeout(WholeSeconds(seconds));
        return 0;
    });
}

PyObject* IsClosed(PyObject* self, void*) {
    return PyBool_FromLong(Self(self)->link && Self(self)->link->IsOpen() ? 0 : 1);
}

PyObject* GetRowFactory(PyObject* self, void*) {
    PyObject* const factory = Self(self)->rowFactory;
    return PyRef::Borrow(factory ? factory : Py_None).Release();
}

int SetRowFactory(PyObject* self, PyObject* value, void*) {
    const PyRef old(Self(self)->rowFactory);
    Self(self)->rowFactory = PyRef::Borrow(value ? value : Py_None).Release();
    return 0;
}

PyGetSetDef Properties[] = {
    {"autocommit", GetAutocommit, SetAutocommit,
     "Whether each statement is committed by itself. Cannot be changed inside a transaction.",
     nullptr},
    {"in_transaction", InTransaction, nullptr, "Whether there is something to commit.", nullptr},
    {"timeout", GetTimeout, SetTimeout, "Whole seconds after which a statement is ended; 0: never.",
     nullptr},
    {"_dbms", Dbms, nullptr, nullptr, nullptr},
    {"closed", IsClosed, nullptr, "Whether the connection is closed.", nullptr},
    {"row_factory", GetRowFactory, SetRowFactory,
     "What makes rows in new cursors: called with the cursor for each result, it returns what is "
     "called with each tuple. None: the tuples.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

Link& LinkOf(PyObject* connection) {
    Link* const link = Self(connection)->link.get();
    if (!link || !link->IsOpen()) throw Failure("08003", "The connection is closed.");
    return *link;
}

PyTypeObject ConnectionType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_name = "vorda._statement.Connection",
    .tp_basicsize = sizeof(ConnectionObject),
    .tp_dealloc = Dealloc,
    .tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    .tp_doc =
        "Connection(connection_string, autocommit, timeout, /)\n--\n\nA connection to a "
        "database.",
    .tp_traverse = Traverse,
    .tp_clear = Clear,
    .tp_weaklistoffset = offsetof(ConnectionObject, weakReferences),
    .tp_methods = Methods,
    .tp_getset = Properties,
    .tp_init = Init,
    .tp_new = New,
};
