// Cursor.callproc: the provider binds procedure arguments by name only, so their names are read
// from its system table first.
#include <cstring>

#include "include/conversion.h"
#include "include/cursor.h"
#include "include/errors.h"

namespace {

void Add(DynStr& text, const char* piece) {
    if (text.Append(piece) != VORDA_OK) throw std::bad_alloc();
}

// The metadata query for a procedure; single quotes in its name are doubled.
void MakeMetadataQuery(const Utf8Text& procedure, DynStr& query) {
    Add(query, "SELECT ColumnName FROM sys_procedureparameters WHERE ProcedureName='");
    for (const char* c = procedure.Deref(); *c != '\0'; ++c) {
        const char piece[] = {*c, *c == '\'' ? '\'' : '\0', '\0'};
        Add(query, piece);
    }
    Add(query, "'");
}

// Appends " name=?" for every parameter that the provider lists.
bool AddArguments(PyObject* self, const Utf8Text& procedure, DynStr& call) {
    DynStr query;
    MakeMetadataQuery(procedure, query);
    Dbs& dbs = *reinterpret_cast<PyCursor*>(self)->dbs;
    if (const int status = dbs.Execute(query.Deref(), query.Length()); status != VORDA_OK) {
        RaiseProviderError(dbs, status);
        return false;
    }
    const PyRef rows = PyCursor_FetchAll(self, nullptr);
    const Py_ssize_t count = rows ? PyList_GET_SIZE(rows.Get()) : 0;
    if (count == 0) {
        RaiseFromCurrent(ProgrammingError,
                         "Could not fetch metadata of the procedure parameters or the parameters "
                         "count is 0");
        return false;
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        const PyRef value(PySequence_GetItem(PyList_GET_ITEM(rows.Get(), i), 0));
        if (!value) return false;
        const auto name = AsUtf8(value.Get());
        if (!name) {
            Raise(ProgrammingError, "The name of parameter %zd of the procedure is not a text.", i);
            return false;
        }
        Add(call, i == 0 ? " " : ", ");
        Add(call, name->Deref());
        Add(call, "=?");
    }
    return true;
}

}  // namespace

PyRef PyCursor_CallProc(PyObject* self, PyObject* args) {
    PyCursor* const cursor = CursorValidate(self, true, false);
    if (cursor == nullptr) return PyRef();
    cursor->RowCount = -1;
    const Py_ssize_t count = PyTuple_GET_SIZE(args);
    if (count < 1) {
        return Raise(ProgrammingError, "callproc() takes at least 1 argument (0 given)");
    }
    if (count > 2) return Raise(ProgrammingError, "callproc() takes at most 2 argument");
    PyObject* const parameters = count == 2 ? PyTuple_GET_ITEM(args, 1) : Py_None;
    if (count == 2 && !PyList_Check(parameters) && !PyTuple_Check(parameters)) {
        return Raise(ProgrammingError,
                     "The second parameter of callproc() is expected to be a tuple or a list");
    }
    PyObject* const name = PyTuple_GET_ITEM(args, 0);
    const auto procedure = AsUtf8(name);
    if (!procedure) {
        return Raise(PyExc_TypeError,
                     "The first argument to execute must be a string or unicode query.");
    }
    if (procedure->IsTruncated() && !WarnAboutNul(name, "procedure name", 0)) return PyRef();

    DynStr call;
    Add(call, "EXECUTE ");
    Add(call, procedure->Deref());
    const Py_ssize_t given = count == 2 ? PySequence_Size(parameters) : 0;
    if (given < 0 || CursorValidate(self, true, false) == nullptr) return PyRef();
    if (given > 0 && !AddArguments(self, *procedure, call)) return PyRef();

    const PyRef statement(PyUnicode_DecodeUTF8(call.Deref(), call.Length(), "strict"));
    if (!statement) return PyRef();
    const PyRef arguments(given > 0 ? PyTuple_Pack(2, statement.Get(), parameters)
                                    : PyTuple_Pack(1, statement.Get()));
    if (!arguments) return PyRef();
    const PyRef executed = PyCursor_Execute(self, arguments.Get(), nullptr);
    return executed ? PyRef::Borrow(parameters) : PyRef();
}
