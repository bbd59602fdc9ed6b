// The module object vorda._statement: the types that vorda.dbapi makes its own of.
#include "dbapi/frameinput.h"
#include "dbapi/framestream.h"
#include "dbapi/objects.h"

namespace {

bool InMainInterpreter() {
    return PyThreadState_Get()->interp == PyInterpreterState_Main();
}

bool AddType(PyObject* module, const char* name, PyTypeObject& type) {
    if (PyType_Ready(&type) < 0) return false;
    auto* const object = reinterpret_cast<PyObject*>(&type);
    Py_INCREF(object);
    if (PyModule_AddObject(module, name, object) == 0) return true;
    Py_DECREF(object);
    return false;
}

// Once for each interpreter that imports the module. The types and the signals are the main one's.
int Execute(PyObject* module) {
    if (!InMainInterpreter()) {
        PyErr_SetString(PyExc_ImportError, "vorda.dbapi works in the main interpreter only");
        return -1;
    }
    const bool built =
        InitValues() && InitWaiting() && AddType(module, "Connection", ConnectionType) &&
        AddType(module, "Cursor", CursorType) && AddType(module, "ArrowInput", ArrowInputType) &&
        AddType(module, "ArrowStream", ArrowStreamType) &&
        AddType(module, "ArrowTable", ArrowTableType);
    return built ? 0 : -1;
}

PyModuleDef_Slot Slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(Execute)},
#ifdef Py_mod_multiple_interpreters
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
#endif
    {0, nullptr},
};

PyMethodDef Functions[] = {
    {"_csv_lines", CsvLines, METH_VARARGS,
     "_csv_lines($module, rows, delimiter, text_of, /)\n--\n\nRows as lines of CSV. A function "
     "makes texts of cells that are none and no numbers; None is an empty field."},
    {"_set_face", SetFace, METH_O,
     "_set_face($module, functions, /)\n--\n\nTake what the core calls, by name."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef ModuleDef = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "vorda._statement",
    .m_doc = "Connections, statements and rows for vorda.dbapi.",
    .m_size = 0,
    .m_methods = Functions,
    .m_slots = Slots,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) PyObject* PyInit__statement() {
    return PyModuleDef_Init(&ModuleDef);
}
