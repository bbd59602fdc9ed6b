#include "dbapi/failure.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace {

constexpr SQLSMALLINT kWordsSize = 4096;

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

PyRef CallFace(const char* function, const char* format, ...) {
    const PyRef face = Checked(PyImport_ImportModule("vorda.dbapi"));
    const PyRef callable = Checked(PyObject_GetAttrString(face.Get(), function));
    va_list values;
    va_start(values, format);
    PyRef arguments(Py_VaBuildValue(format, values));
    va_end(values);
    if (!arguments) throw PythonError();
    return Checked(PyObject_CallObject(callable.Get(), arguments.Get()));
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
        const PyRef exception = CallFace("_failure", "(O)", records.Get());
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exception.Get())), exception.Get());
    } catch (const PythonError&) {
        // There is an error, if not this one.
    }
}
