// The ten DB-API exception classes and the ways in which the Python layer raises them.
#pragma once

#include "include/pyref.h"

class Dbs;

// Each holds a reference from the import on, for the life of the process.
extern PyObject* Warning;
extern PyObject* Error;
extern PyObject* InterfaceError;
extern PyObject* DatabaseError;
extern PyObject* DataError;
extern PyObject* OperationalError;
extern PyObject* IntegrityError;
extern PyObject* InternalError;
extern PyObject* ProgrammingError;
extern PyObject* NotSupportedError;

// Creates the classes and adds them to the module: 0, or -1 with an error set.
int InitError(PyObject* module);

// Sets an error with a PyUnicode_FromFormat text. The result is empty, to be returned.
PyRef Raise(PyObject* exception, const char* format, ...);
// Sets the provider's last error as DatabaseError, or MemoryError where `status` says so.
PyRef RaiseProviderError(const Dbs& dbs, int status);
// Raise, with the error set now, if there is one, as the cause.
PyRef RaiseFromCurrent(PyObject* exception, const char* format, ...);
