// Executing a statement once.
#include "dbapi/logging.h"
#include "dbapi/objects.h"

void ReadParameters(CursorObject* self, PyObject* given, PyRef& sql) {
    self->values.clear();
    if (!given || given == Py_None) return;
    PyRef sequence = PyRef::Borrow(given);
    if (!PyTuple_CheckExact(given) && !PyList_CheckExact(given)) {
        const PyRef pair = CallFace("_positional", "(OOs)", sql.Get(), given,
                                    self->link->Behind().product.c_str());
        sql = PyRef::Borrow(PyTuple_GetItem(pair.Get(), 0));
        sequence = PyRef::Borrow(PyTuple_GetItem(pair.Get(), 1));
        if (!sql || !sequence) throw PythonError();
    }
    const Sending sending = self->link->Behind().HowToSend();
    // A list may change while adapters run.
    for (Py_ssize_t i = 0; i < PySequence_Fast_GET_SIZE(sequence.Get()); ++i) {
        const PyRef item = PyRef::Borrow(PySequence_Fast_GET_ITEM(sequence.Get(), i));
        self->values.push_back(ReadValue(item.Get(), i + 1, sending));
    }
}

void RefuseToEndBatch(const Link& link, PyObject* sql) {
    if (link.IsInBatch() && CallFace("_ends_transaction", "(O)", sql).Get() != Py_None)
        link.RefuseInBatch();
}

void GiveStatementBack(CursorObject* self) {
    if (self->statement) self->link->GiveBack(std::move(self->statement));
    Py_CLEAR(self->makeRow);
}

Statement& UseStatement(CursorObject* self, PyObject* sql) {
    Py_CLEAR(self->makeRow);
    self->rowCount = -1;
    self->link->FinishUndo();
    self->link->RefuseLostBatch();
    if (sql && self->statement && self->statement->IsFor(sql)) {
        self->statement->Close();
    } else {
        GiveStatementBack(self);
        self->statement = self->link->TakeStatement(sql);
    }
    self->link->Touch();
    return *self->statement;
}

PyRef CursorExecute(PyObject* object, PyObject* const* args, Py_ssize_t count) {
    if (count < 1 || count > 2 || !PyUnicode_Check(args[0])) {
        PyErr_SetString(PyExc_TypeError,
                        "execute() takes a statement as str, and optionally its parameters");
        return PyRef();
    }
    const Call call(object);
    CursorObject* const self = AsCursor(object);
    LinkOf(reinterpret_cast<PyObject*>(self->connection));
    PyRef sql = Checked(PyUnicode_FromObject(args[0]));  // a derived class may do anything
    try {
        ReadParameters(self, count > 1 ? args[1] : nullptr, sql);
    } catch (...) {
        // What fails leaves no rows of what came before.
        GiveStatementBack(self);
        throw;
    }
    Link& link = *self->link;
    RefuseToEndBatch(link, sql.Get());
    Logged logged(sql.Get(), self->values.size());
    const Link::Turn turn(link);
    Statement& statement = UseStatement(self, sql.Get());
    link.Wait(statement.Handle(), [&] { statement.Execute(self->values); });
    self->rowCount = statement.RowCount();
    logged.Succeeded(self->rowCount);
    self->values.clear();
    return PyRef::Borrow(object);
}
