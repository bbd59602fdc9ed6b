#include "dbapi/logging.h"

namespace {

// Null where nobody has imported the module yet, without which nobody listens. The import of this
// driver leaves it to others: it would take a third of its time.
PyRef FindLogger() {
    static PyObject* name = nullptr;
    if (!name) name = PyUnicode_InternFromString("logging");
    PyObject* const modules = PyImport_GetModuleDict();
    if (!name || !modules || !PyDict_CheckExact(modules)) return PyRef();
    const PyRef module = PyRef::Borrow(PyDict_GetItemWithError(modules, name));
    return PyRef(module ? PyObject_CallMethod(module.Get(), "getLogger", "s", "vorda") : nullptr);
}

}  // namespace

bool IsLogging() {
    constexpr long kDebug = 10;
    // Not initialised by their declarations: who waits for that has the interpreter lock.
    static PyObject* logger = nullptr;
    static PyObject* level = nullptr;
    // Not part of the logger's interface; without it, the logger is asked each time.
    static PyObject* answers = nullptr;
    if (!answers) {
        if (!logger) logger = FindLogger().Release();
        if (!level) level = PyLong_FromLong(kDebug);
        if (logger && level) answers = PyObject_GetAttrString(logger, "_cache");
        PyErr_Clear();
        if (!logger || !level) return false;
    }
    PyObject* const known = answers ? PyDict_GetItemWithError(answers, level) : nullptr;
    if (known) return known == Py_True;
    PyErr_Clear();
    const PyRef answer(PyObject_CallMethod(logger, "isEnabledFor", "O", level));
    const bool isOn = answer && answer.Get() == Py_True;
    PyErr_Clear();
    return isOn;
}

void Logged::Tell() const noexcept {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - m_begin;
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    try {
        CallFace("_log", "(OnndO)", m_sql, static_cast<Py_ssize_t>(m_values),
                 static_cast<Py_ssize_t>(m_rows), time.count(), m_failed ? Py_True : Py_False);
    } catch (...) {
        // A handler that raises has told so by itself.
        PyErr_Clear();
    }
    PyErr_Restore(type, value, trace);
}
