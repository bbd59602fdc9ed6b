#include "include/modulecore.h"

#include "include/pydatetime.h"

PyDateTime_CAPI* PyDateTimeAPI = nullptr;

namespace {

// PyModule_AddObject takes the reference only when it succeeds.
int AddObject(PyObject* module, const char* name, PyRef object) {
    if (!object || PyModule_AddObject(module, name, object.Get()) < 0) return -1;
    object.Release();
    return 0;
}

}  // namespace

int InitType(PyTypeObject& type, PyObject* module, const char* attribute, const char* name,
             const char* doc) {
    type.tp_name = name;
    type.tp_doc = doc;
    if (PyType_Ready(&type) < 0) return -1;
    const auto object = reinterpret_cast<PyObject*>(&type);
    if (AddObject(module, attribute, PyRef::Borrow(object)) < 0) return -1;
    Py_INCREF(object);
    return 0;
}

int InitTypeObjectAndConstructors(PyObject* module) {
    PyDateTimeAPI = static_cast<PyDateTime_CAPI*>(PyCapsule_Import("datetime.datetime_CAPI", 0));
    if (PyDateTimeAPI == nullptr) return -1;
    const struct {
        const char* Name;
        PyTypeObject* Type;
    } attributes[] = {
        {"Date", PyDateTimeAPI->DateType},
        {"Time", PyDateTimeAPI->TimeType},
        {"Timestamp", PyDateTimeAPI->DateTimeType},
        {"DATETIME", PyDateTimeAPI->DateTimeType},
        {"STRING", &PyUnicode_Type},
        {"NUMBER", &PyFloat_Type},
        {"ROWID", &PyLong_Type},
        {"BINARY", &PyByteArray_Type},
        {"Binary", &PyByteArray_Type},
    };
    for (const auto& attribute : attributes) {
        const auto object = reinterpret_cast<PyObject*>(attribute.Type);
        if (AddObject(module, attribute.Name, PyRef::Borrow(object)) < 0) return -1;
    }
    return 0;
}

int InitModuleAttr(PyObject* module) {
    PyModule_AddIntConstant(module, "threadsafety", 1);
    PyModule_AddStringConstant(module, "apilevel", "2.0");
    PyModule_AddStringConstant(module, "paramstyle", "qmark");
    return 0;
}
