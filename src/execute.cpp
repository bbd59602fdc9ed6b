// Cursor.execute. It goes in three moves: gather the parameters, which may run any Python code;
// look again whether the cursor is still usable; then prepare, bind and execute without giving
// Python a chance to come in between.
#include <optional>

#include "include/binding.h"
#include "include/conversion.h"
#include "include/cursor.h"
#include "include/errors.h"
#include "include/metadata.h"
#include "include/pydatetime.h"

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

// Everything of a value that its way to the provider drops.
bool WarnAboutLosses(PyObject* value, Py_ssize_t position) {
    const ParamKind* const kind = ParamKindOf(value);
    const unsigned losses = kind != nullptr && kind->Losses != nullptr ? kind->Losses(value) : 0;
    if ((losses & kBehindNul) != 0) return WarnAboutNul(value, kind->Name, position);
    if ((losses & kFraction) != 0 &&
        PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                         "The time at position [%zd] of arguments loses its fraction of a second, "
                         "%d microseconds.",
                         position, PyDateTime_TIME_GET_MICROSECOND(value)) < 0) {
        return false;
    }
    return (losses & kTimeZone) == 0 ||
           PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                            "The %s at position [%zd] of arguments loses its time zone.",
                            kind->Name, position) == 0;
}

bool WarnAboutLosses(const Parameters& parameters) {
    for (Py_ssize_t i = 0; i < parameters.Count; ++i) {
        if (!WarnAboutLosses(parameters.Values[i], parameters.FirstPosition + i)) return false;
    }
    return true;
}

bool InvalidValue(Py_ssize_t position) {
    RaiseFromCurrent(ProgrammingError, "Invalid value at position [%zd] of arguments.", position);
    return false;
}

// Binds one value, which the layer below copies; false with an error set when it cannot be sent.
bool Bind(Dbs& dbs, int index, PyObject* value, Py_ssize_t position) {
    const ParamKind* const kind = ParamKindOf(value);
    if (kind == nullptr) {
        Raise(NotSupportedError, "Unsupported data type at position [%zd] of arguments.", position);
        return false;
    }
    const Encoding& encoding = SingleEncoding(*kind, value);
    alignas(long long) char fixed[sizeof(_db_datetime_)];
    std::optional<Utf8Text> text;
    const char* data = nullptr;
    int size = encoding.Size;
    if (encoding.Put != nullptr) {
        if (!encoding.Put(value, fixed)) return InvalidValue(position);
        data = fixed;
    } else if (encoding.IsText()) {
        text = AsUtf8(value);
        if (!text) return InvalidValue(position);
        data = text->Deref();
        size = text->Length();
    }
    const int status = dbs.AddParam(index, encoding.Type, data, size, &size);
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
    const auto sql = AsUtf8(args[0]);
    if (!sql) {
        return Raise(PyExc_TypeError,
                     "The first argument to execute must be a string or unicode query.");
    }
    Parameters parameters;
    if ((sql->IsTruncated() && !WarnAboutNul(args[0], "statement", 0)) ||
        !GatherParameters(args, count, *sql, parameters) || !WarnAboutLosses(parameters) ||
        !CompareMarkers(self, sql->Deref(), parameters.Count)) {
        return PyRef();
    }

    Dbs& dbs = *cursor->dbs;
    const bool direct = parameters.Count == 0;
    if (!direct && !PrepareAndBind(dbs, *sql, parameters)) return PyRef();
    const int status = direct ? dbs.Execute(sql->Deref(), sql->Length()) : dbs.Execute();
    if (status != VORDA_OK) return RaiseProviderError(dbs, status);

    const int rowCount = dbs.GetRowCount();
    if (BuildCursorDescription(cursor) != 0) {
        return RaiseFromCurrent(DatabaseError, "failed to build description");
    }
    // A class that the description needs may be imported, and its module's code closed the cursor.
    if (cursor->Connection != nullptr) cursor->RowCount = rowCount;
    return PyRef::Borrow(self);
}
