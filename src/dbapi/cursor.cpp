// The Python type Cursor: executing, and handing out rows.
#include <new>

#include "dbapi/framestream.h"
#include "dbapi/objects.h"
// Behind Python.h, which it does not include.
#include <structmember.h>

namespace {

CursorObject* Self(PyObject* object) {
    return reinterpret_cast<CursorObject*>(object);
}

// ---- life

PyObject* New(PyTypeObject* type, PyObject*, PyObject*) {
    PyObject* const object = type->tp_alloc(type, 0);
    if (!object) return nullptr;
    CursorObject* const self = Self(object);
    new (&self->link) std::shared_ptr<Link>();
    new (&self->statement) std::unique_ptr<Statement>();
    new (&self->values) std::vector<Value>();
    self->rowFactory = PyRef::Borrow(Py_None).Release();
    self->arraySize = 1;
    self->rowCount = -1;
    return object;
}

int Init(PyObject* object, PyObject* args, PyObject*) {
    return AtBoundary(-1, [&] {
        PyObject* connection = nullptr;
        if (!PyArg_ParseTuple(args, "O!", &ConnectionType, &connection)) return -1;
        LinkOf(connection);
        CursorObject* const self = Self(object);
        if (self->connection) throw Failure("HY010", "The cursor is made already.");
        self->connection = reinterpret_cast<ConnectionObject*>(PyRef::Borrow(connection).Release());
        self->link = self->connection->link;
        const PyRef old(self->rowFactory);
        self->rowFactory = PyRef::Borrow(self->connection->rowFactory).Release();
        return 0;
    });
}

int Traverse(PyObject* object, visitproc visit, void* arg) {
    Py_VISIT(Self(object)->connection);
    Py_VISIT(Self(object)->rowFactory);
    Py_VISIT(Self(object)->makeRow);
    return 0;
}

int Clear(PyObject* object) {
    Py_CLEAR(Self(object)->connection);
    Py_CLEAR(Self(object)->rowFactory);
    Py_CLEAR(Self(object)->makeRow);
    return 0;
}

void Dealloc(PyObject* object) {
    PyObject_GC_UnTrack(object);
    CursorObject* const self = Self(object);
    if (self->weakReferences) PyObject_ClearWeakRefs(object);
    // The last one to let go of a connection closes it, which may run other threads.
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    GiveStatementBack(self);
    self->statement.~unique_ptr();
    self->values.~vector();
    Clear(object);
    self->link.~shared_ptr();
    PyErr_Restore(type, value, trace);
    Py_TYPE(object)->tp_free(object);
}

PyRef Close(PyObject* object, PyObject*) {
    CursorObject* const self = Self(object);
    if (!self->connection) return PyRef::Borrow(Py_None);
    const Call call(object);
    GiveStatementBack(self);
    Py_CLEAR(self->connection);
    return PyRef::Borrow(Py_None);
}

// ---- rows

Statement& StatementWithRows(CursorObject* self) {
    if (!self->statement || !self->statement->HasColumns())
        throw Failure("HY010", "The last operation gave no rows, or they were handed over.");
    self->link->RefuseInherited();
    return *self->statement;
}

void Describe(CursorObject* self) {
    if (self->statement->IsDescribed()) return;
    const Link::Turn turn(*self->link);
    self->link->Wait(self->statement->Handle(), [self] { self->statement->Describe(); });
}

PyRef NextTuple(CursorObject* self, Statement& statement) {
    try {
        return statement.NextRow();
    } catch (const CellFailure& failure) {
        try {
            Describe(self);
        } catch (const Failure&) {
            // Then the column's number has to do.
        }
        throw failure.Named(statement.NameOf(failure.column));
    }
}

// The next row as the factory makes it; null at the end.
PyRef Next(CursorObject* self, Statement& statement) {
    if (statement.WantsLoading()) {
        Link& link = *self->link;
        const Link::Turn turn(link);
        // It may have been lost meanwhile.
        if (statement.WantsLoading() && statement.KnowsEnd()) statement.Load();
        if (statement.WantsLoading()) link.Wait(statement.Handle(), [&] { statement.Load(); });
    }
    PyRef row = NextTuple(self, statement);
    if (!row || !self->rowFactory || self->rowFactory == Py_None) return row;
    if (!self->makeRow) {
        self->makeRow = Checked(CallPython(self->rowFactory, self)).Release();
    }
    return Checked(CallPython(self->makeRow, row.Get()));
}

PyRef FetchOne(PyObject* object, PyObject*) {
    const Call call(object);
    PyRef row = Next(Self(object), StatementWithRows(Self(object)));
    return row ? std::move(row) : PyRef::Borrow(Py_None);
}

PyObject* IterNext(PyObject* object) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        const Call call(object);
        return Next(Self(object), StatementWithRows(Self(object))).Release();
    });
}

PyRef FetchUpTo(PyObject* object, Py_ssize_t most) {
    const Call call(object);
    Statement& statement = StatementWithRows(Self(object));
    PyRef rows = Checked(PyList_New(0));
    while (PyList_GET_SIZE(rows.Get()) < most) {
        const PyRef row = Next(Self(object), statement);
        if (!row) break;
        if (PyList_Append(rows.Get(), row.Get()) < 0) throw PythonError();
    }
    return rows;
}

PyRef FetchAll(PyObject* object, PyObject*) {
    return FetchUpTo(object, PY_SSIZE_T_MAX);
}

PyRef FetchMany(PyObject* object, PyObject* args, PyObject* keywords) {
    static const char* const kNames[] = {"size", nullptr};
    PyObject* given = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, keywords, "|O", const_cast<char**>(kNames), &given))
        return PyRef();
    const Py_ssize_t size =
        given == Py_None ? Self(object)->arraySize : PyNumber_AsSsize_t(given, nullptr);
    if (PyErr_Occurred()) throw PythonError();
    if (size < 0) throw Failure("HY090", "The number of rows is negative.");
    return FetchUpTo(object, size);
}

PyRef FetchFrame(PyObject* object, PyObject* args, PyObject* keywords) {
    static const char* const kNames[] = {"batch_rows", nullptr};
    Py_ssize_t rows = 65536;
    if (!PyArg_ParseTupleAndKeywords(args, keywords, "|n", const_cast<char**>(kNames), &rows))
        return PyRef();
    if (rows < 1) throw Failure("HY090", "A batch has one row at least.");
    const Call call(object);
    Statement& statement = StatementWithRows(Self(object));
    return FetchArrow(Self(object), statement, static_cast<size_t>(rows));
}

PyRef FetchWholeFrame(PyObject* object, PyObject*) {
    const Call call(object);
    return FetchArrowAll(Self(object), StatementWithRows(Self(object)));
}

PyRef NextSet(PyObject* object, PyObject*) {
    const Call call(object);
    CursorObject* const self = Self(object);
    if (!self->statement) return PyRef::Borrow(Py_None);
    Py_CLEAR(self->makeRow);
    Link& link = *self->link;
    const Link::Turn turn(link);
    bool found = false;
    link.Wait(self->statement->Handle(), [&] { found = self->statement->NextResult(); });
    self->rowCount = self->statement->RowCount();
    return PyRef::Borrow(found ? Py_True : Py_None);
}

PyRef SetSizes(PyObject*, PyObject*) {
    return PyRef::Borrow(Py_None);
}

template <PyRef (*Method)(PyObject*, PyObject*, PyObject*)>
PyCFunction WithKeywords() {
    constexpr PyObject* (*adapted)(PyObject*, PyObject*, PyObject*) =
        [](PyObject* self, PyObject* args, PyObject* keywords) noexcept {
            return AtBoundary<PyObject*>(nullptr,
                                         [&] { return Method(self, args, keywords).Release(); });
        };
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(adapted));
}

template <PyRef (*Method)(PyObject*, PyObject* const*, Py_ssize_t)>
PyCFunction AsFast() {
    constexpr PyObject* (*adapted)(PyObject*, PyObject* const*,
                                   Py_ssize_t) = [](PyObject* self, PyObject* const* args,
                                                    Py_ssize_t count) noexcept {
        return AtBoundary<PyObject*>(nullptr, [&] { return Method(self, args, count).Release(); });
    };
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(adapted));
}

PyMethodDef Methods[] = {
    {"execute", AsFast<CursorExecute>(), METH_FASTCALL,
     "execute($self, operation, parameters=None, /)\n--\n\nRun a statement, and return the cursor. "
     "Parameters: a sequence for ?, or a mapping for :name."},
    {"executemany", AsFast<CursorExecuteMany>(), METH_FASTCALL,
     "executemany($self, operation, seq_of_parameters, /)\n--\n\nRun a statement once for each of "
     "many sequences or mappings, or rows of Arrow data: for all or, when one fails, for none."},
    {"_ask_catalog", AsFast<CursorAskCatalog>(), METH_FASTCALL,
     "_ask_catalog($self, function, names, option, /)\n--\n\nAsk the catalogue, and return the "
     "cursor. An option narrows the answer."},
    {"fetchone", Adapted<FetchOne>, METH_NOARGS,
     "fetchone($self, /)\n--\n\nThe next row, or None after the last."},
    {"fetchmany", WithKeywords<FetchMany>(), METH_VARARGS | METH_KEYWORDS,
     "fetchmany($self, /, size=None)\n--\n\nThe next rows, as a list of at most `size`, or of "
     "`arraysize`."},
    {"fetchall", Adapted<FetchAll>, METH_NOARGS,
     "fetchall($self, /)\n--\n\nThe rows that are left, as a list."},
    {"fetch_arrow", WithKeywords<FetchFrame>(), METH_VARARGS | METH_KEYWORDS,
     "fetch_arrow($self, /, batch_rows=65536)\n--\n\nHand the rows that are left over to one who "
     "takes Arrow's streams, which reads them batch by batch; the cursor is free."},
    {"fetch_arrow_all", Adapted<FetchWholeFrame>, METH_NOARGS,
     "fetch_arrow_all($self, /)\n--\n\nThe rows that are left, as a table for those who take "
     "Arrow's streams."},
    {"nextset", Adapted<NextSet>, METH_NOARGS,
     "nextset($self, /)\n--\n\nGo on to the next result: True, or None if there is none."},
    {"setinputsizes", Adapted<SetSizes>, METH_O,
     "setinputsizes($self, sizes, /)\n--\n\nDoes nothing: values tell what they are."},
    {"setoutputsize", Adapted<SetSizes>, METH_VARARGS,
     "setoutputsize($self, size, column=None, /)\n--\n\nDoes nothing: no value is cut."},
    {"close", Adapted<Close>, METH_NOARGS,
     "close($self, /)\n--\n\nClose the cursor. Further calls do nothing."},
    {nullptr, nullptr, 0, nullptr},
};

PyObject* Description(PyObject* object, void*) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        const Call call = Call::ThatLooks(object);
        CursorObject* const self = Self(object);
        if (!self->statement || !self->statement->HasColumns())
            return PyRef::Borrow(Py_None).Release();
        Describe(self);
        return self->statement->Description().Release();
    });
}

PyObject* RowCount(PyObject* object, void*) {
    return PyLong_FromSsize_t(Self(object)->rowCount);
}

PyObject* LastRowId(PyObject* object, void*) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        const Call call = Call::ThatLooks(object);
        CursorObject* const self = Self(object);
        SQLBIGINT id = 0;
        bool known = false;
        if (self->statement && self->link->IsOpen()) {
            const Link::Turn turn(*self->link);
            known = self->statement->LastRowId(id);
        }
        return known ? PyLong_FromLongLong(id) : PyRef::Borrow(Py_None).Release();
    });
}

PyObject* IsClosed(PyObject* object, void*) {
    return PyBool_FromLong(Self(object)->connection ? 0 : 1);
}

PyObject* GetConnection(PyObject* object, void*) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        if (!Self(object)->connection) throw Failure("24000", "The cursor is closed.");
        return PyRef::Borrow(reinterpret_cast<PyObject*>(Self(object)->connection)).Release();
    });
}

PyObject* GetRowFactory(PyObject* object, void*) {
    PyObject* const factory = Self(object)->rowFactory;
    return PyRef::Borrow(factory ? factory : Py_None).Release();
}

int SetRowFactory(PyObject* object, PyObject* value, void*) {
    const PyRef old(Self(object)->rowFactory);
    const PyRef made(std::exchange(Self(object)->makeRow, nullptr));
    Self(object)->rowFactory = PyRef::Borrow(value ? value : Py_None).Release();
    return 0;
}

PyGetSetDef Properties[] = {
    {"description", Description, nullptr,
     "The columns of the result, each as name, type, None, size, precision, scale and whether it "
     "may be NULL; None without a result.",
     nullptr},
    {"rowcount", RowCount, nullptr, "Rows that the last statement changed; -1 for queries.",
     nullptr},
    {"lastrowid", LastRowId, nullptr,
     "The row id of the row inserted last, on SQLite; None where there are none.", nullptr},
    {"connection", GetConnection, nullptr, "The connection that the cursor works on.", nullptr},
    {"closed", IsClosed, nullptr, "Whether the cursor is closed.", nullptr},
    {"row_factory", GetRowFactory, SetRowFactory,
     "What makes rows: called with the cursor for each result, it returns what is called with each "
     "tuple. None: the tuples.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef Members[] = {
    {"arraysize", T_PYSSIZET, offsetof(CursorFields, arraySize), 0,
     "How many rows fetchmany() gives when it is not told."},
    {nullptr, 0, 0, 0, nullptr},
};

}  // namespace

PyTypeObject CursorType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_name = "vorda._statement.Cursor",
    .tp_basicsize = sizeof(CursorObject),
    .tp_dealloc = Dealloc,
    .tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    .tp_doc = "Cursor(connection, /)\n--\n\nWhat runs statements and gives their rows.",
    .tp_traverse = Traverse,
    .tp_clear = Clear,
    .tp_weaklistoffset = offsetof(CursorFields, weakReferences),
    .tp_iter = PyObject_SelfIter,
    .tp_iternext = IterNext,
    .tp_methods = Methods,
    .tp_members = Members,
    .tp_getset = Properties,
    .tp_init = Init,
    .tp_new = New,
};
