// Cursor.execute. It goes in three moves: gather the parameters, which may run any Python code;
// look again whether the cursor is still usable; then prepare, bind and execute without giving
// Python a chance to come in between.
#include <climits>
#include <vector>

#include "include/binding.h"
#include "include/conversion.h"
#include "include/cursor.h"
#include "include/errors.h"
#include "include/metadata.h"
#include "include/pydatetime.h"

ParamKind ParamKindOf(PyObject* value) {
    if (PyUnicode_Check(value)) return ParamKind::Text;
    if (PyLong_Check(value)) return ParamKind::Int;
    if (PyFloat_Check(value)) return ParamKind::Float;
    if (PyDateTime_Check(value)) return ParamKind::DateTime;
    if (PyDate_Check(value)) return ParamKind::Date;
    if (PyTime_Check(value)) return ParamKind::Time;
    return value == Py_None ? ParamKind::None : ParamKind::Unsupported;
}

namespace {

struct Parameters {
    std::vector<PyRef> Values;
    Py_ssize_t FirstPosition = 0;  // of the first value, in error messages
};

bool GatherSequence(PyObject* sequence, Parameters& parameters) {
    const Py_ssize_t end = PySequence_Size(sequence);
    if (end < 0) return false;
    for (Py_ssize_t i = parameters.FirstPosition; i < end; ++i) {
        PyRef value(PySequence_GetItem(sequence, i));
        if (!value) return false;
        parameters.Values.push_back(std::move(value));
    }
    return true;
}

// The parameters of execute(sql, ...): one list, tuple or dict, or everything after the statement.
bool GatherParameters(PyObject* args, const DynStr& sql, Parameters& parameters) {
    const Py_ssize_t count = PyTuple_GET_SIZE(args);
    if (count == 1) return true;
    PyObject* const second = PyTuple_GET_ITEM(args, 1);
    if (count == 2 && (PyList_Check(second) || PyTuple_Check(second))) {
        return GatherSequence(second, parameters);
    }
    if (count == 2 && PyDict_Check(second)) {
        PyObject* flattened = nullptr;
        if (FlattenDictParameters(sql.Deref(), second, &flattened) != 0) return false;
        const PyRef owner(flattened);
        return GatherSequence(flattened, parameters);
    }
    parameters.FirstPosition = 1;
    return GatherSequence(args, parameters);
}

bool WarnAboutCuts(const Parameters& parameters) {
    Py_ssize_t position = parameters.FirstPosition;
    for (const PyRef& value : parameters.Values) {
        const bool isText = PyUnicode_Check(value.Get());
        const char* what = isText ? "text" : PyTime_Check(value.Get()) ? "time" : "datetime";
        if (!WarnIfCut(value.Get(), what, position++)) return false;
    }
    return true;
}

// Binds one fixed-size value. The layer below copies it.
template <class Value>
int AddFixed(Dbs& dbs, int index, int type, const Value& value) {
    const int size = sizeof value;
    return dbs.AddParam(index, type, &value, size, &size);
}

template <class Value>
int AddConverted(Dbs& dbs, int index, int type, PyObject* object,
                 int (*convert)(PyObject*, Value&)) {
    Value value;
    convert(object, value);
    return AddFixed(dbs, index, type, value);
}

bool BindInt(Dbs& dbs, int index, PyObject* value, int& status) {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (overflow != 0) return false;
    const bool fits32 = static_cast<unsigned long long>(number) + 2147483648ULL <= 4294967295ULL;
    status = fits32 ? AddConverted(dbs, index, DBTYPE_INTEGER, value, GetPyObjectAsInt)
                    : AddConverted(dbs, index, DBTYPE_BIGINT, value, GetPyObjectAsLongLong);
    return true;
}

bool BindText(Dbs& dbs, int index, PyObject* value, int& status) {
    DynStr text;
    if (GetPyObjectAsString(value, text) != 0) return false;
    const int size = text.Length();
    status = dbs.AddParam(index, DBTYPE_STRING, text.Deref(), size, &size);
    return true;
}

// Binds one value; false with an error set when it cannot be sent.
bool Bind(Dbs& dbs, int index, PyObject* value, Py_ssize_t position) {
    bool valid = true;
    int status = VORDA_OK;
    switch (ParamKindOf(value)) {
        case ParamKind::Text:
            valid = BindText(dbs, index, value, status);
            break;
        case ParamKind::Int:
            valid = BindInt(dbs, index, value, status);
            break;
        case ParamKind::Float:
            status = AddConverted(dbs, index, DBTYPE_DOUBLE, value, GetPyObjectAsDouble);
            break;
        case ParamKind::DateTime:
            status = AddConverted(dbs, index, DBTYPE_DATETIME_MICRO, value, GetPyObjectAsDatetime);
            break;
        case ParamKind::Date:
            status = AddConverted(dbs, index, DBTYPE_DATE, value, GetPyObjectAsDate);
            break;
        case ParamKind::Time:
            status = AddConverted(dbs, index, DBTYPE_TIME, value, GetPyObjectAsTime);
            break;
        case ParamKind::None: {
            // A length of 0, not -1: None is an empty text to the provider, not NULL.
            const int size = 0;
            status = dbs.AddParam(index, DBTYPE_NONE, nullptr, size, &size);
            break;
        }
        case ParamKind::Unsupported:
            Raise(NotSupportedError, "Unsupported data type at position [%zd] of arguments.",
                  position);
            return false;
    }
    if (!valid) {
        Raise(ProgrammingError, "Invalid value at position [%zd] of arguments.", position);
        return false;
    }
    if (status != VORDA_OK) RaiseProviderError(dbs, status);
    return status == VORDA_OK;
}

bool PrepareAndBind(Dbs& dbs, const DynStr& sql, const Parameters& parameters) {
    if (const int status = dbs.Prepare(sql.Deref(), sql.Length()); status != VORDA_OK) {
        RaiseProviderError(dbs, status);
        return false;
    }
    int index = 0;
    for (const PyRef& value : parameters.Values) {
        if (!Bind(dbs, index, value.Get(), parameters.FirstPosition + index)) return false;
        ++index;
    }
    return true;
}

}  // namespace

PyRef PyCursor_Execute(PyObject* self, PyObject* args, PyObject*) {
    PyCursor* const cursor = CursorValidate(self, true, false);
    if (cursor == nullptr) return PyRef();
    cursor->RowCount = -1;
    if (args == nullptr || PyTuple_GET_SIZE(args) < 1) {
        return Raise(PyExc_TypeError, "execute() takes at least 1 argument (0 given)");
    }
    DynStr sql;
    if (GetArgumentAsString(args, 0, sql) != 0) {
        return Raise(PyExc_TypeError,
                     "The first argument to execute must be a string or unicode query.");
    }
    Parameters parameters;
    if (!WarnIfCut(PyTuple_GET_ITEM(args, 0), "statement", 0) ||
        !GatherParameters(args, sql, parameters) || !WarnAboutCuts(parameters) ||
        CursorValidate(self, true, false) == nullptr) {
        return PyRef();
    }

    Dbs& dbs = *cursor->dbs;
    const bool direct = parameters.Values.empty();
    if (!direct && !PrepareAndBind(dbs, sql, parameters)) return PyRef();
    const int status = direct ? dbs.Execute(sql.Deref(), sql.Length()) : dbs.Execute();
    if (status != VORDA_OK) return RaiseProviderError(dbs, status);

    const int rowCount = dbs.GetRowCount();
    if (BuildCursorDescription(cursor) != 0) {
        return PyErr_Occurred() ? PyRef() : Raise(DatabaseError, "failed to build description");
    }
    // A class that the description needs may be imported, and its module's code closed the cursor.
    if (cursor->Connection != nullptr) cursor->RowCount = rowCount;
    return PyRef::Borrow(self);
}
