// The module object vorda._statement: the types that vorda.dbapi makes its own of.
#include "dbapi/objects.h"

namespace {

PyModuleDef ModuleDef = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "vorda._statement",
    .m_doc = "Connections, statements and rows for vorda.dbapi.",
    .m_size = -1,
};

bool AddType(PyObject* module, const char* name, PyTypeObject& type) {
    if (PyType_Ready(&type) < 0) return false;
    auto* const object = reinterpret_cast<PyObject*>(&type);
    Py_INCREF(object);
    if (PyModule_AddObject(module, name, object) == 0) return true;
    Py_DECREF(object);
    return false;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) PyObject* PyInit__statement() {
    PyRef module(PyModule_Create(&ModuleDef));
    const bool built = module && InitValues() && InitWaiting() &&
                       AddType(module.Get(), "Connection", ConnectionType) &&
                       AddType(module.Get(), "Cursor", CursorType);
    return built ? module.Release() : nullptr;
}
