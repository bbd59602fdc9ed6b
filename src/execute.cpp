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
    PyObject* const* Values = nullptr;
    Py_ssize_t Count = 0;
    Py_ssize_t FirstPosition = 0;  // of the first value, in error messages
    PyRef Owner;                   // a tuple, where the values are not the caller's arguments
};

// A tuple of the sequence's items as they are now: what runs later may change a list.
PyRef TupleOf(PyObject* sequence) {
    if (PyTuple_CheckExact(sequence)) return PyRef::Borrow(sequence);
    if (PyList_CheckExact(sequence)) return PyRef(PyList_AsTuple(sequence));
    // A subclass tells its size and its items with code of its own.
    const Py_ssize_t size = PySequence_Size(sequence);
    if (size < 0) return PyRef();
    const PyRef items(PyList_New(0));
    if (!items) return PyRef();
    for (Py_ssize_t i = 0; i < size; ++i) {
        const PyRef item(PySequence_GetItem(sequence, i));
        if (!item || PyList_Append(items.Get(), item.Get()) < 0) return PyRef();
    }
    return PyRef(PyList_AsTuple(items.Get()));
}

bool GatherSequence(PyObject* sequence, Parameters& parameters) {
    parameters.Owner = TupleOf(sequence);
    if (!parameters.Owner) return false;
    parameters.Values = PySequence_Fast_ITEMS(parameters.Owner.Get());
    parameters.Count = PyTuple_GET_SIZE(parameters.Owner.Get());
    return true;
}

// The parameters of execute(sql, ...): one list, tuple or dict, or everything after the statement.
bool GatherParameters(PyObject* const* args, Py_ssize_t count, const Utf8Text& sql,
                      Parameters& parameters) {
    if (count == 1) return true;
    PyObject* const second = args[1];
    if (count == 2 && (PyList_Check(second) || PyTuple_Check(second))) {
        return GatherSequence(second, parameters);
    }
    if (count == 2 && PyDict_Check(second)) {
        PyObject* flattened = nullptr;
        if (FlattenDictParameters(sql.Deref(), second, &flattened) != 0) return false;
        const PyRef owner(flattened);
        return GatherSequence(flattened, parameters);
    }
    parameters.Values = args + 1;
    parameters.Count = count - 1;
    parameters.FirstPosition = 1;
    return true;
}

const char* CutWhat(ParamKind kind) {
    switch (kind) {
        case ParamKind::Text:
            return "text";
        case ParamKind::DateTime:
            return "datetime";
        case ParamKind::Time:
            return "time";
        default:
            return nullptr;  // nothing of such a value can be lost
    }
}

bool WarnAboutCuts(const Parameters& parameters) {
    for (Py_ssize_t i = 0; i < parameters.Count; ++i) {
        PyObject* const value = parameters.Values[i];
        const char* const what = CutWhat(ParamKindOf(value));
        if (what != nullptr && !WarnIfCut(value, what, parameters.FirstPosition + i)) return false;
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
    Utf8Text text;
    if (text.Set(value) != 0) return false;
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

bool PrepareAndBind(Dbs& dbs, const Utf8Text& sql, const Parameters& parameters) {
    if (const int status = dbs.Prepare(sql.Deref(), sql.Length()); status != VORDA_OK) {
        RaiseProviderError(dbs, status);
        return false;
    }
    for (Py_ssize_t i = 0; i < parameters.Count; ++i) {
        if (!Bind(dbs, static_cast<int>(i), parameters.Values[i], parameters.FirstPosition + i)) {
            return false;
        }
    }
    return true;
}

}  // namespace

PyRef PyCursor_Execute(PyObject* self, PyObject* args, PyObject*) {
    return args != nullptr
               ? ExecuteStatement(self, PySequence_Fast_ITEMS(args), PyTuple_GET_SIZE(args))
               : ExecuteStatement(self, nullptr, 0);
}

PyRef ExecuteStatement(PyObject* self, PyObject* const* args, Py_ssize_t count) {
    PyCursor* const cursor = CursorValidate(self, true, false);
    if (cursor == nullptr) return PyRef();
    cursor->RowCount = -1;
    if (count < 1) {
        return Raise(PyExc_TypeError, "execute() takes at least 1 argument (0 given)");
    }
    Utf8Text sql;
    if (!PyUnicode_Check(args[0]) || sql.Set(args[0]) != 0) {
        return Raise(PyExc_TypeError,
                     "The first argument to execute must be a string or unicode query.");
    }
    Parameters parameters;
    if (!WarnIfCut(args[0], "statement", 0) || !GatherParameters(args, count, sql, parameters) ||
        !WarnAboutCuts(parameters) || !CompareMarkers(self, sql.Deref(), parameters.Count)) {
        return PyRef();
    }

    Dbs& dbs = *cursor->dbs;
    const bool direct = parameters.Count == 0;
    if (!direct && !PrepareAndBind(dbs, sql, parameters)) return PyRef();
    const int status = direct ? dbs.Execute(sql.Deref(), sql.Length()) : dbs.Execute();
    if (status != VORDA_OK) return RaiseProviderError(dbs, status);

    const int rowCount = dbs.GetRowCount();
    if (BuildCursorDescription(cursor) != 0) {
        return RaiseFromCurrent(DatabaseError, "failed to build description");
    }
    // A class that the description needs may be imported, and its module's code closed the cursor.
    if (cursor->Connection != nullptr) cursor->RowCount = rowCount;
    return PyRef::Borrow(self);
}
