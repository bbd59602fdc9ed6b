#include "dbapi/failure.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "dbapi/waiting.h"

namespace {

constexpr SQLSMALLINT kWordsSize = 4096;

PyObject* g_face = nullptr;  // a dictionary: modules may be gone when the interpreter ends

}  // namespace

std::vector<Diagnostic> ReadRecords(SQLSMALLINT handleType, SQLHANDLE handle, SQLSMALLINT first,
                                    SQLSMALLINT most) {
    std::vector<Diagnostic> records;
    for (SQLSMALLINT number = first; number - first < most; ++number) {
        // Terminated whatever the runtime writes into all but the last bytes.
        char state[16] = {};
        char words[kWordsSize + 1] = {};
        SQLINTEGER native = 0;
        const SQLRETURN status = SQLGetDiagRecW(handleType, handle, number, AsWideBuffer(state),
                                                &native, AsWideBuffer(words), kWordsSize, nullptr);
        if (!OdbcSucceeded(status)) break;
        state[SQL_SQLSTATE_SIZE] = '\0';
        records.push_back({state, native, words});
    }
    return records;
}

std::vector<Diagnostic> ReadDiagnostics(SQLSMALLINT handleType, SQLHANDLE handle, SQLSMALLINT first,
                                        SQLSMALLINT most) {
    std::vector<Diagnostic> records = ReadRecords(handleType, handle, first, most);
    if (records.empty()) records.push_back({"HY000", 0, "The driver does not say what is wrong."});
    return records;
}

SQLHANDLE NewHandle(SQLSMALLINT type, SQLSMALLINT parentType, SQLHANDLE parent) {
    SQLHANDLE made = nullptr;
    const SQLRETURN status = SQLAllocHandle(type, parent, &made);
    if (OdbcSucceeded(status) && made) return made;
    const Failure failure(ReadDiagnostics(parentType, parent));
    if (made && status != SQL_ERROR) SQLFreeHandle(type, made);
    throw failure;
}

PyObject* SetFace(PyObject*, PyObject* functions) noexcept {
    const PyRef old(std::exchange(g_face, PyRef::Borrow(functions).Release()));
    return PyRef::Borrow(Py_None).Release();
}

PyRef OfFace(const char* name) {
    if (!g_face) Checked(PyImport_ImportModule("vorda.dbapi"));
    PyObject* const found = g_face ? PyMapping_GetItemString(g_face, name) : nullptr;
    if (!found && !PyErr_Occurred()) PyErr_SetString(PyExc_ImportError, "vorda.dbapi is not whole");
    return Checked(found);
}

PyRef CallFace(const char* function, const char* format, ...) {
    const PyRef callable = OfFace(function);
    va_list values;
    va_start(values, format);
    const PyRef arguments(Py_VaBuildValue(format, values));
    va_end(values);
    if (!arguments) throw PythonError();
    PyRef result(InPython([&] { return PyObject_CallObject(callable.Get(), arguments.Get()); }));
    if (result) return result;
    const bool wantsNames = PyErr_ExceptionMatches(PyExc_TypeError) ||
                            PyErr_ExceptionMatches(PyExc_AttributeError) ||
                            PyErr_ExceptionMatches(PyExc_ImportError);
    if (!ProgramEnds() || !wantsNames) throw PythonError();
    PyErr_Clear();
    throw Failure("HY010", "The interpreter ends, and with it what reads such parameters.");
}

void Failure::Raise() const {
    try {
        const PyRef records = Checked(PyList_New(0));
        for (const Diagnostic& record : m_records) {
            // The words are the driver's: whatever they are, they are shown.
            const PyRef words = Checked(PyUnicode_DecodeUTF8(
                record.words.data(), static_cast<Py_ssize_t>(record.words.size()), "replace"));
            const PyRef state = Checked(PyUnicode_DecodeLatin1(
                record.state.data(), static_cast<Py_ssize_t>(record.state.size()), nullptr));
            const PyRef entry =
                Checked(Py_BuildValue("(OlO)", state.Get(), record.native, words.Get()));
            if (PyList_Append(records.Get(), entry.Get()) < 0) return;
        }
        const PyRef exception = Checked(CallPython(OfFace("_failure").Get(), records.Get()));
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.Get())), exception.Get());
    } catch (const PythonError&) {
        // There is an error, if not this one.
    }
}
