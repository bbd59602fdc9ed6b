// Conversion between Python objects and the values of the layers below. The converters check
// nothing: their callers choose them by the object's type. All of them run under the interpreter
// lock.
#pragma once

#include "include/dbs.h"
#include "include/pyref.h"

// The Python type that `description` shows for a DB type code: a new reference, or empty with an
// error set.
PyRef ConvertSQLTypeToPyType(int sqlType);
// A class of a standard module, imported once a thread: a new reference, or empty with an error
// set.
PyRef GetPyClass(const char* moduleName, const char* className);
// Units before the terminator: 16-bit ones for encoding 2, 32-bit ones for 3, bytes for any other.
int GetStringLength(const char* c, int encoding);

// Always 0. A number that does not fit leaves -1 and the Python error.
int GetPyObjectAsInt(PyObject* object, int& value);
int GetPyObjectAsLongLong(PyObject* object, long long& value);
int GetPyObjectAsDouble(PyObject* object, double& value);
// True for the True singleton only.
int GetPyObjectAsBool(PyObject* object, bool& value);
// The field named Millisecond receives microseconds; time zones are not looked at.
int GetPyObjectAsDatetime(PyObject* object, _db_datetime_& value);
int GetPyObjectAsDate(PyObject* object, _db_date_& value);
int GetPyObjectAsTime(PyObject* object, _db_time_& value);

// str() of a date, a time or both: a new reference, or empty with an error set. Only a subclass and
// a time zone make it with code of their own.
PyRef DateTimeAsText(PyObject* value);

// Whether a str holds a surrogate, which has no UTF-8 form. To be asked before a codec is: one that
// fails may run the program's own error handler. Throws std::bad_alloc.
bool HasSurrogate(PyObject* text);
// The UTF-8 form of a str, up to its first NUL, without a copy where the str itself holds it: the
// str must outlive this.
class Utf8Text {
  public:
    // 0, or -1 without an error set when the str has no such form (a lone surrogate); throws
    // std::bad_alloc for want of memory.
    int Set(PyObject* text);
    const char* Deref() const { return m_text; }
    int Length() const { return m_length; }

  private:
    PyRef m_encoded;
    const char* m_text = "";
    int m_length = 0;
};
// The UTF-8 form of a str, up to its first NUL. 0, or -1 without an error set when it has none (a
// lone surrogate); throws std::bad_alloc for want of memory.
int GetPyObjectAsString(PyObject* object, DynStr& value);
// The same for an item of a tuple; -1 also when the item is not a str.
int GetArgumentAsString(PyObject* pyArgs, int index, DynStr& value);

// What of a value its way to the provider may drop.
enum Loss : unsigned { kBehindNul = 1, kFraction = 2, kTimeZone = 4 };
// What there is of it in a value, as bits.
unsigned LossesOf(PyObject* value);

// Everything about a value that its way to the provider would drop raises a RuntimeWarning, since
// nothing may be cut silently. `what` names the value, `position` where it stands. False with an
// error set when the program turns warnings into errors.
bool WarnIfCut(PyObject* value, const char* what, Py_ssize_t position);
