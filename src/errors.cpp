#include "include/errors.h"

#include <cstdarg>
#include <cstring>

#include "include/dbs.h"

PyObject* Warning;
PyObject* Error;
PyObject* InterfaceError;
PyObject* DatabaseError;
PyObject* DataError;
PyObject* OperationalError;
PyObject* IntegrityError;
PyObject* InternalError;
PyObject* ProgrammingError;
PyObject* NotSupportedError;

namespace {

struct _py_exceptioninfo {
    const char* Name;
    const char* FullName;
    PyObject** PyExcObj;
    PyObject** PyExcParentObj;
    const char* Doc;
};
using ExceptionInfo = _py_exceptioninfo;

// A base class stands before the classes that derive from it.
const ExceptionInfo ExcInfos[] = {
    {"Warning", "vorda.zelqa.Warning", &Warning, &PyExc_Exception,
     "Exception raised for important warnings like data truncations while inserting."},
    {"Error", "vorda.zelqa.Error", &Error, &PyExc_Exception,
     "Exception that is the base class of all other error exceptions. You can use this to catch "
     "all "
     "errors with one single except statement."},
    {"InterfaceError", "vorda.zelqa.InterfaceError", &InterfaceError, &Error,
     "Exception raised for errors that are related to the database interface rather than the "
     "database "
     "itself."},
    {"DatabaseError", "vorda.zelqa.DatabaseError", &DatabaseError, &Error,
     "Exception raised for errors that are related to the database."},
    {"DataError", "vorda.zelqa.DataError", &DataError, &DatabaseError,
     "Exception raised for errors that are due to problems with the processed data like division "
     "by "
     "zero, numeric value out of range, etc."},
    {"OperationalError", "vorda.zelqa.OperationalError", &OperationalError, &DatabaseError,
     "Exception raised for errors that are related to the database's operation and not necessarily "
     "under the control of the programmer, e.g. an unexpected disconnect occurs, the data source "
     "name "
     "is not found, a transaction could not be processed, a memory allocation error occurred "
     "during "
     "processing, etc."},
    {"IntegrityError", "vorda.zelqa.IntegrityError", &IntegrityError, &DatabaseError,
     "Exception raised when the relational integrity of the database is affected, e.g. a foreign "
     "key "
     "check fails."},
    {"InternalError", "vorda.zelqa.InternalError", &InternalError, &DatabaseError,
     "Exception raised when the database encounters an internal error, e.g. the cursor is not "
     "valid "
     "anymore, the transaction is out of sync, etc."},
    {"ProgrammingError", "vorda.zelqa.ProgrammingError", &ProgrammingError, &DatabaseError,
     "Exception raised for programming errors, e.g. table not found or already exists, syntax "
     "error in "
     "the SQL statement, wrong number of parameters specified, etc."},
    {"NotSupportedError", "vorda.zelqa.NotSupportedError", &NotSupportedError, &DatabaseError,
     "Exception raised in case a method or database API was used which is not supported by the "
     "database."},
};

}  // namespace

int InitError(PyObject* module) {
    for (const ExceptionInfo& info : ExcInfos) {
        // An import under another name finds them there, and a program the classes that it catches.
        if (*info.PyExcObj == nullptr) {
            *info.PyExcObj =
                PyErr_NewExceptionWithDoc(info.FullName, info.Doc, *info.PyExcParentObj, nullptr);
        }
        if (*info.PyExcObj == nullptr) return -1;
        PyRef added = PyRef::Borrow(*info.PyExcObj);
        if (PyModule_AddObject(module, info.Name, added.Get()) < 0) return -1;
        added.Release();
    }
    return 0;
}

PyRef Raise(PyObject* exception, const char* format, ...) {
    va_list args;
    va_start(args, format);
    PyErr_FormatV(exception, format, args);
    va_end(args);
    return PyRef();
}

PyRef RaiseProviderError(const Dbs& dbs, int status) {
    if (status == VORDA_OUT_OF_MEMORY) {
        PyErr_NoMemory();
        return PyRef();
    }
    // The provider may have left no text, text in another encoding, or text truncated inside a
    // character.
    const char* message = dbs.GetLastErrorMessage();
    if (*message == '\0') message = "Unable to retrieve the error";
    const PyRef text(
        PyUnicode_DecodeUTF8(message, static_cast<Py_ssize_t>(std::strlen(message)), "replace"));
    if (text) PyErr_SetObject(DatabaseError, text.Get());
    return PyRef();
}

PyRef RaiseFromCurrent(PyObject* exception, const char* format, ...) {
    PyObject *causeType, *causeValue, *causeTrace, *type, *value, *trace;
    PyErr_Fetch(&causeType, &causeValue, &causeTrace);
    PyErr_NormalizeException(&causeType, &causeValue, &causeTrace);
    const PyRef ownedType(causeType), cause(causeValue), ownedTrace(causeTrace);
    if (causeTrace != nullptr) PyException_SetTraceback(causeValue, causeTrace);
    va_list args;
    va_start(args, format);
    PyErr_FormatV(exception, format, args);
    va_end(args);
    if (!cause) return PyRef();
    PyErr_Fetch(&type, &value, &trace);
    PyErr_NormalizeException(&type, &value, &trace);
    PyException_SetCause(value, PyRef::Borrow(causeValue).Release());
    PyException_SetContext(value, PyRef::Borrow(causeValue).Release());
    PyErr_Restore(type, value, trace);
    return PyRef();
}
