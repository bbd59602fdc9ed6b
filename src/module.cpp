// The module object: PyInit_zelqa builds it once a process.
#include "include/connection.h"
#include "include/cursor.h"
#include "include/errors.h"
#include "include/modulecore.h"
#include "include/row.h"

namespace {

PyMethodDef Module_Methods[] = {
    {"connect", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(VordaModule_Connect)),
     METH_VARARGS | METH_KEYWORDS,
     "Constructor for creating a connection to the database.\n\nReturns a Connection Object."},
    {nullptr, nullptr, 0, nullptr},
};

void Module_FREE(void*) {}

// A state size of -1: the module keeps its state in process globals.
PyModuleDef ModuleDef = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "vorda.zelqa",
    .m_doc = "A data module for accessing Zelqa Data Provider.",
    .m_size = -1,
    .m_methods = Module_Methods,
    .m_slots = nullptr,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = Module_FREE,
};

}  // namespace

extern "C" VORDA_EXPORT PyObject* PyInit_zelqa() {
    PyRef module(PyModule_Create2(&ModuleDef, PYTHON_API_VERSION));
    if (!module) return nullptr;
    PyObject* const m = module.Get();
    const bool built =
        InitConnectionType(m, "vorda.zelqa.Connection",
                           "Connection objects manage connections to the database. ") == 0 &&
        InitCursorType(m, "vorda.zelqa.Cursor",
                       "Cursor objects represent a database cursor, which is used to manage the "
                       "context of a fetch operation. ") == 0 &&
        InitRowType(m, "vorda.zelqa.Row", "Row Object to fetch data.") == 0 && InitError(m) == 0 &&
        InitTypeObjectAndConstructors(m) == 0 && InitModuleAttr(m) >= 0;
    return built ? module.Release() : nullptr;
}
