#include "include/row.h"

#include <structmember.h>

#include <algorithm>
#include <cstddef>

#include "include/conversion.h"
#include "include/errors.h"
#include "include/modulecore.h"

namespace {

PyRow* AsRow(PyObject* object) {
    return reinterpret_cast<PyRow*>(object);
}

Py_ssize_t PyRow_Length(PyObject* self) {
    return AsRow(self)->columns;
}

PyObject* Row_Item(PyObject* self, Py_ssize_t index) {
    const PyRow* const row = AsRow(self);
    if (index < 0 || index >= row->columns) {
        return Raise(PyExc_IndexError, "tuple index out of range").Release();
    }
    return PyRef::Borrow(row->values[index]).Release();
}

int Row_Ass_Item(PyObject* self, Py_ssize_t index, PyObject* value) {
    PyRow* const row = AsRow(self);
    if (value == nullptr) {
        Raise(PyExc_TypeError, "the values of a row cannot be deleted");
        return -1;
    }
    if (index < 0 || index >= row->columns) {
        Raise(PyExc_IndexError, "assignment index out of range index=%zd len=%d", index,
              row->columns);
        return -1;
    }
    const PyRef old(std::exchange(row->values[index], PyRef::Borrow(value).Release()));
    return 0;
}

int Row_Contains(PyObject* self, PyObject* object) {
    const PyRow* const row = AsRow(self);
    for (int i = 0; i < row->columns; ++i) {
        // The comparison may replace the value in the row.
        const PyRef value = PyRef::Borrow(row->values[i]);
        const int equal = PyObject_RichCompareBool(object, value.Get(), Py_EQ);
        if (equal != 0) return equal;
    }
    return 0;
}

PyRef ValueByIndex(const PyRow* row, PyObject* key) {
    // Without an exception class a number beyond the machine's range is clipped, and so out of
    // range.
    const Py_ssize_t index = PyNumber_AsSsize_t(key, nullptr);
    if (index == -1 && PyErr_Occurred()) return PyRef();
    const Py_ssize_t position = index < 0 ? index + row->columns : index;
    if (position < 0 || position >= row->columns) {
        return Raise(PyExc_IndexError, "row index out of range index=%zd len=%d", index,
                     row->columns);
    }
    return PyRef::Borrow(row->values[position]);
}

PyRef ValueByName(const PyRow* row, PyObject* name) {
    PyObject* const description = row->Description;
    if (description == nullptr || !PyTuple_Check(description) ||
        PyTuple_GET_SIZE(description) == 0) {
        return Raise(ProgrammingError, "Failed to get value without the row description");
    }
    // Another statement may have given the cursor more columns than this row has.
    const Py_ssize_t columns = std::min<Py_ssize_t>(PyTuple_GET_SIZE(description), row->columns);
    for (Py_ssize_t i = 0; i < columns; ++i) {
        PyObject* const columnName = PyTuple_GET_ITEM(PyTuple_GET_ITEM(description, i), 0);
        const int equal = PyObject_RichCompareBool(name, columnName, Py_EQ);
        if (equal < 0) return PyRef();
        if (equal > 0) return PyRef::Borrow(row->values[i]);
    }
    return Raise(ProgrammingError, "Could not find the column");
}

PyObject* PyRow_Subscript(PyObject* self, PyObject* key) {
    const PyRow* const row = AsRow(self);
    if (PyIndex_Check(key)) return ValueByIndex(row, key).Release();
    if (PySlice_Check(key)) {
        return Raise(NotSupportedError, "get item with slice is not supported").Release();
    }
    if (!PyUnicode_Check(key)) {
        return Raise(PyExc_IndexError, "failed to get value with key type: %s",
                     Py_TYPE(key)->tp_name)
            .Release();
    }
    return ValueByName(row, key).Release();
}

PyRef JoinReprs(const PyRow* row) {
    DynStr text;
    int failed = text.Append("(");
    for (int i = 0; i < row->columns; ++i) {
        const PyRef value = PyRef::Borrow(row->values[i]);
        const PyRef repr(PyObject_Repr(value.Get()));
        if (!repr) return PyRef();
        // A repr of the program's own may hold lone surrogates; they pass through.
        const PyRef utf8(PyUnicode_AsEncodedString(repr.Get(), "utf-8", "surrogatepass"));
        if (!utf8) return PyRef();
        if (i > 0) failed |= text.Append(", ");
        failed |= text.Append(PyBytes_AS_STRING(utf8.Get()), PyBytes_GET_SIZE(utf8.Get()));
    }
    failed |= text.Append(")");
    if (failed) throw std::bad_alloc();
    return PyRef(PyUnicode_DecodeUTF8(text.Deref(), text.Length(), "surrogatepass"));
}

PyObject* PyRow_Repr(PyObject* self) {
    // A row can be assigned into itself.
    const int entered = Py_ReprEnter(self);
    if (entered != 0) return entered > 0 ? PyUnicode_FromString("(...)") : nullptr;
    PyObject* const repr =
        CalledFromPython<PyObject*>(nullptr, [&] { return JoinReprs(AsRow(self)).Release(); });
    Py_ReprLeave(self);
    return repr;
}

// A row can hold a row, and so on to any depth: those that die while another one is being released
// wait in a list, so that the stack does not grow with the depth. Each thread has its own: a
// value's finaliser may wait for what another thread's rows hold.
void PyRow_Dealloc(PyObject* self) {
    static thread_local struct {
        PyRow* Waiting;
        bool IsReleasing;
    } rows = {};
    auto& [waiting, isReleasing] = rows;
    PyRow* const dead = AsRow(self);
    // Of no further use as the description, the field links the list.
    Py_CLEAR(dead->Description);
    dead->Description = reinterpret_cast<PyObject*>(std::exchange(waiting, dead));
    if (isReleasing) return;

    isReleasing = true;
    while (waiting != nullptr) {
        PyRow* const row = std::exchange(waiting, AsRow(waiting->Description));
        for (int i = 0; i < row->columns; ++i) Py_XDECREF(row->values[i]);
        PyObject_Free(row);
    }
    isReleasing = false;
}

PySequenceMethods PyRow_Sequence_Methods = {
    .sq_length = PyRow_Length,
    .sq_item = Row_Item,
    .sq_ass_item = Row_Ass_Item,
    .sq_contains = Row_Contains,
};

PyMappingMethods PyRow_Mapping_Methods = {
    .mp_length = PyRow_Length,
    .mp_subscript = PyRow_Subscript,
};

PyMethodDef PyRow_Methods[] = {{nullptr, nullptr, 0, nullptr}};

PyMemberDef PyRow_Members[] = {
    {"description", T_OBJECT_EX, offsetof(PyRow, Description), READONLY,
     "This read-only attribute is a sequence of 7-item sequences.\n\n"
     "Each of these sequences contains information describing one result column, as in\n"
     "the description of the cursor that fetched the row."},
    {nullptr, 0, 0, 0, nullptr},
};

}  // namespace

PyTypeObject RowType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_basicsize = sizeof(PyRow),
    .tp_dealloc = PyRow_Dealloc,
    .tp_repr = PyRow_Repr,
    .tp_as_sequence = &PyRow_Sequence_Methods,
    .tp_as_mapping = &PyRow_Mapping_Methods,
    .tp_flags = Py_TPFLAGS_DEFAULT,
    .tp_methods = PyRow_Methods,
    .tp_members = PyRow_Members,
};

int InitRowType(PyObject* module, const char* name, const char* doc) {
    return InitType(RowType, module, "Row", name, doc);
}
