// Conversion between Python objects and the values of the layers below. The converters check
// nothing: their callers choose them by the object's type. All of them run under the interpreter
// lock.
#pragma once

#include <optional>

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

// Whether a datetime or a time has a time zone.
bool HasTimeZone(PyObject* value);
// str() of a date, a time or both: a new reference, or empty with an error set. Only a subclass and
// a time zone make it with code of their own.
PyRef DateTimeAsText(PyObject* value);

// Whether a str holds a surrogate, which has no UTF-8 form. To be asked before a codec is: one that
// fails may run the program's own error handler. Throws std::bad_alloc.
bool HasSurrogate(PyObject* text);
// Where a str has its first NUL, or -1.
Py_ssize_t FindNul(PyObject* text);
// A NUL-terminated text and its length in bytes; owns it, or borrows it from a str.
class Utf8Text {
  public:
    Utf8Text(const char* text, int length, bool isTruncated, PyRef owner)
        : m_owner(std::move(owner)), m_text(text), m_length(length), m_isTruncated(isTruncated) {}
    const char* Deref() const { return m_text; }
    int Length() const { return m_length; }
    // Whether the str goes on behind a NUL.
    bool IsTruncated() const { return m_isTruncated; }

  private:
    PyRef m_owner;
    const char* m_text;
    int m_length;
    bool m_isTruncated;
};
// The UTF-8 form of a str, up to its first NUL, without a copy where the str itself holds it: the
// str must outlive it. Nothing where there is no such form (a lone surrogate) or no str; throws
// std::bad_alloc for want of memory.
std::optional<Utf8Text> AsUtf8(PyObject* text);
// A copy of it. 0, or -1 without an error set: the callers have messages of their own.
int GetPyObjectAsString(PyObject* object, DynStr& value);
// The same for an item of a tuple.
int GetArgumentAsString(PyObject* pyArgs, int index, DynStr& value);

// A RuntimeWarning that a text is sent up to its first NUL only, since nothing may be truncated
// silently. `what` names the text, `position` where it stands. False with an error set when the
// program turns warnings into errors.
bool WarnAboutNul(PyObject* text, const char* what, Py_ssize_t position);
