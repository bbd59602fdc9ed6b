#include "include/metadata.h"

#include "dbutil.h"
#include "include/cursor.h"
#include "include/errors.h"

namespace {

// The value that the dictionary holds for a marker, or empty with an error set.
PyRef ValueOf(PyObject* dict, const SQL_TOKEN& marker) {
    const char* const text = marker.sValue.Deref();
    // A marker is taken from text that Python gave, but may hold a part of a character only.
    const PyRef key(PyUnicode_DecodeUTF8(text + 1, marker.sValue.Length() - 1, "replace"));
    if (!key) return PyRef();
    PyObject* const value = PyDict_GetItemWithError(dict, key.Get());
    if (value != nullptr) return PyRef::Borrow(value);
    if (PyErr_Occurred()) return PyRef();
    return Raise(ProgrammingError, "Fail to bind parameters: %s", text);
}

int WarnAboutMarkers(const char* sql, int markers, Py_ssize_t values) {
    if (markers < values) {
        return PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                                "The statement has %d parameter marker(s), but %zd value(s) are "
                                "given.",
                                markers, values);
    }
    const std::string_view around = AroundPlaceholder(sql, values);
    const PyRef text(
        PyUnicode_DecodeUTF8(around.data(), static_cast<Py_ssize_t>(around.size()), "replace"));
    if (!text) return -1;
    return PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                            "The statement has %d parameter marker(s), but %zd value(s) are given: "
                            "there is none for the marker in %R.",
                            markers, values, text.Get());
}

}  // namespace

int FlattenDictParameters(const char* sql, PyObject* dict, PyObject** tupleParams) {
    const PyRef values(PyList_New(0));
    if (!values) return -1;
    MarkerWalk walk(sql);
    while (const SQL_TOKEN* marker = walk.NextMarker()) {
        const PyRef value = ValueOf(dict, *marker);
        if (!value || PyList_Append(values.Get(), value.Get()) < 0) return -1;
    }
    PyObject* const tuple = PyList_AsTuple(values.Get());
    if (tuple == nullptr) return -1;
    *tupleParams = tuple;
    return 0;
}

bool CompareMarkers(PyObject* cursor, const char* sql, Py_ssize_t values) {
    const PyCursor* const usable = CursorValidate(cursor, true, false);
    if (usable == nullptr) return false;
    Dbs& dbs = *usable->dbs;
    int markers = 0;
    if (const int status = dbs.CountPlaceholders(sql, markers); status != VORDA_OK) {
        RaiseProviderError(dbs, status);
        return false;
    }
    return markers == values || (WarnAboutMarkers(sql, markers, values) == 0 &&
                                 CursorValidate(cursor, true, false) != nullptr);
}
