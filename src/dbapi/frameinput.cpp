#include "dbapi/frameinput.h"

#include <new>

namespace {

struct InputObject {
    PyObject ob_base;
    Input input;
};

InputObject* Self(PyObject* object) {
    return reinterpret_cast<InputObject*>(object);
}

PyObject* New(PyTypeObject* type, PyObject* args, PyObject*) {
    return AtBoundary<PyObject*>(nullptr, [&]() -> PyObject* {
        PyObject* data = nullptr;
        if (!PyArg_ParseTuple(args, "O", &data)) return nullptr;
        if (!ForeignStream::IsOneFor(data)) {
            throw Failure("07006", std::string("A ") + Py_TYPE(data)->tp_name +
                                       " has no Arrow data: neither __arrow_c_stream__ nor "
                                       "__arrow_c_array__.");
        }
        auto stream = std::make_unique<ForeignStream>(data);
        PyRef object = Checked(type->tp_alloc(type, 0));
        new (&Self(object.Get())->input) Input{std::move(stream), PyRef()};
        return object.Release();
    });
}

void Dealloc(PyObject* object) {
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    Self(object)->input.~Input();
    PyErr_Restore(type, value, trace);
    Py_TYPE(object)->tp_free(object);
}

PyObject* Columns(PyObject* object, void*) {
    return AtBoundary<PyObject*>(nullptr, [&] {
        PyRef columns = Checked(PyList_New(0));
        if (!Self(object)->input.stream) return columns.Release();
        for (const ForeignColumn& column : Self(object)->input.stream->Columns()) {
            const ForeignColumn& valued = ValuedBy(column);
            const PyRef entry =
                Checked(Py_BuildValue("(ss(ii))", column.name.c_str(), NameOfType(valued),
                                      valued.precision, valued.scale));
            if (PyList_Append(columns.Get(), entry.Get()) < 0) throw PythonError();
        }
        return columns.Release();
    });
}

int SetInArrays(PyObject* object, PyObject* text, void*) {
    if (!text || !PyUnicode_CheckExact(text)) {
        PyErr_SetString(PyExc_TypeError, "in_arrays is a statement");
        return -1;
    }
    Self(object)->input.inArrays = PyRef::Borrow(text);
    return 0;
}

PyGetSetDef Properties[] = {
    {"in_arrays", nullptr, SetInArrays,
     "A statement that stores many rows at once, for PostgreSQL: it takes one array for each "
     "column.",
     nullptr},
    {"columns", Columns, nullptr, "Each column's name and type, and precision and scale in a pair.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

Input InputOf(PyObject* object) {
    if (Py_TYPE(object) == &ArrowInputType) {
        if (!Self(object)->input.stream)
            throw Failure("HY010", "The Arrow data were read already.");
        return std::move(Self(object)->input);
    }
    Input input;
    if (ForeignStream::IsOneFor(object)) input.stream = std::make_unique<ForeignStream>(object);
    return input;
}

PyTypeObject ArrowInputType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_name = "vorda._statement.ArrowInput",
    .tp_basicsize = sizeof(InputObject),
    .tp_dealloc = Dealloc,
    .tp_flags = Py_TPFLAGS_DEFAULT,
    .tp_doc =
        "ArrowInput(data, /)\n--\n\nThe rows of an object with Arrow data, for executemany().",
    .tp_getset = Properties,
    .tp_new = New,
};
