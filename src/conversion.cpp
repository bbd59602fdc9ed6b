#include "include/conversion.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "include/errors.h"
#include "include/pydatetime.h"

namespace {

PyRef DateTimeType(PyTypeObject* type) {
    return PyRef::Borrow(reinterpret_cast<PyObject*>(type));
}

template <class Unit>
int CountUnits(const char* text) {
    int count = 0;
    for (Unit unit;; ++count) {
        std::memcpy(&unit, text + static_cast<size_t>(count) * sizeof unit, sizeof unit);
        if (unit == 0) return count;
    }
}

char* PutNumber(char* out, int number, int digits) {
    for (int i = digits; i-- > 0; number /= 10) out[i] = static_cast<char>('0' + number % 10);
    return out + digits;
}

char* PutDate(char* out, PyObject* date) {
    out = PutNumber(out, PyDateTime_GET_YEAR(date), 4);
    *out++ = '-';
    out = PutNumber(out, PyDateTime_GET_MONTH(date), 2);
    *out++ = '-';
    return PutNumber(out, PyDateTime_GET_DAY(date), 2);
}

char* PutTime(char* out, int hour, int minute, int second, int microsecond) {
    out = PutNumber(out, hour, 2);
    *out++ = ':';
    out = PutNumber(out, minute, 2);
    *out++ = ':';
    out = PutNumber(out, second, 2);
    if (microsecond == 0) return out;
    *out++ = '.';
    return PutNumber(out, microsecond, 6);
}

}  // namespace

PyRef ConvertSQLTypeToPyType(int sqlType) {
    const auto builtin = [](PyTypeObject& type) {
        return PyRef::Borrow(reinterpret_cast<PyObject*>(&type));
    };
    switch (sqlType) {
        case DBTYPE_BINARY:
            return builtin(PyByteArray_Type);
        case DBTYPE_TINYINT:
        case DBTYPE_SMALLINT:
        case DBTYPE_INTEGER:
        case DBTYPE_BIGINT:
            return builtin(PyLong_Type);
        case DBTYPE_BIT:
            return builtin(PyBool_Type);
        case DBTYPE_DATE:
            return DateTimeType(PyDateTimeAPI->DateType);
        case DBTYPE_DATETIME:
            return DateTimeType(PyDateTimeAPI->DateTimeType);
        case DBTYPE_TIME:
            return DateTimeType(PyDateTimeAPI->TimeType);
        case DBTYPE_NUMERIC:
        case DBTYPE_DECIMAL:
            return GetPyClass("decimal", "Decimal");
        case DBTYPE_DOUBLE:
        case DBTYPE_FLOAT:
            return builtin(PyFloat_Type);
        case DBTYPE_GUID:
            return GetPyClass("uuid", "UUID");
        default:
            return builtin(PyUnicode_Type);
    }
}

PyRef GetPyClass(const char* moduleName, const char* className) {
    PyObject* const cache = PyThreadState_GetDict();
    if (cache == nullptr) {
        return Raise(PyExc_Exception, "vorda: PyThreadState_GetDict returned NULL");
    }
    const PyRef key(PyUnicode_FromString(className));
    if (!key) return PyRef();
    if (PyObject* known = PyDict_GetItemWithError(cache, key.Get())) return PyRef::Borrow(known);
    if (PyErr_Occurred()) return PyRef();

    const PyRef module(PyImport_ImportModule(moduleName));
    if (!module) return PyRef();
    PyRef found(PyObject_GetAttr(module.Get(), key.Get()));
    if (!found || PyDict_SetItem(cache, key.Get(), found.Get()) < 0) return PyRef();
    return found;
}

int GetStringLength(const char* c, int encoding) {
    switch (encoding) {
        case 2:
            return CountUnits<unsigned short>(c);
        case 3:
            return CountUnits<unsigned int>(c);
        default:
            return CountUnits<char>(c);
    }
}

int GetPyObjectAsInt(PyObject* object, int& value) {
    value = static_cast<int>(PyLong_AsLong(object));
    return 0;
}

int GetPyObjectAsLongLong(PyObject* object, long long& value) {
    value = PyLong_AsLongLong(object);
    return 0;
}

int GetPyObjectAsDouble(PyObject* object, double& value) {
    value = PyFloat_AsDouble(object);
    return 0;
}

int GetPyObjectAsBool(PyObject* object, bool& value) {
    value = object == Py_True;
    return 0;
}

int GetPyObjectAsDatetime(PyObject* object, _db_datetime_& value) {
    value = {PyDateTime_GET_YEAR(object),
             PyDateTime_GET_MONTH(object),
             PyDateTime_GET_DAY(object),
             PyDateTime_DATE_GET_HOUR(object),
             PyDateTime_DATE_GET_MINUTE(object),
             PyDateTime_DATE_GET_SECOND(object),
             PyDateTime_DATE_GET_MICROSECOND(object)};
    return 0;
}

int GetPyObjectAsDate(PyObject* object, _db_date_& value) {
    value = {PyDateTime_GET_YEAR(object), PyDateTime_GET_MONTH(object), PyDateTime_GET_DAY(object)};
    return 0;
}

int GetPyObjectAsTime(PyObject* object, _db_time_& value) {
    value = {1, PyDateTime_TIME_GET_HOUR(object), PyDateTime_TIME_GET_MINUTE(object),
             PyDateTime_TIME_GET_SECOND(object), PyDateTime_TIME_GET_MICROSECOND(object)};
    return 0;
}

// All of the C API's date and time objects with a time begin alike.
bool HasTimeZone(PyObject* value) {
    return reinterpret_cast<_PyDateTime_BaseTZInfo*>(value)->hastzinfo != 0;
}

PyRef DateTimeAsText(PyObject* value) {
    char text[32];
    char* end = text;
    if (PyDate_CheckExact(value)) {
        end = PutDate(end, value);
    } else if (PyDateTime_CheckExact(value) && !HasTimeZone(value)) {
        end = PutDate(end, value);
        *end++ = ' ';
        end = PutTime(end, PyDateTime_DATE_GET_HOUR(value), PyDateTime_DATE_GET_MINUTE(value),
                      PyDateTime_DATE_GET_SECOND(value), PyDateTime_DATE_GET_MICROSECOND(value));
    } else if (PyTime_CheckExact(value) && !HasTimeZone(value)) {
        end = PutTime(end, PyDateTime_TIME_GET_HOUR(value), PyDateTime_TIME_GET_MINUTE(value),
                      PyDateTime_TIME_GET_SECOND(value), PyDateTime_TIME_GET_MICROSECOND(value));
    } else {
        return PyRef(PyObject_Str(value));
    }
    return PyRef(PyUnicode_FromStringAndSize(text, end - text));
}

bool HasSurrogate(PyObject* text) {
    const Py_ssize_t length = PyUnicode_GetLength(text);
    if (length < 0) {
        PyErr_Clear();
        throw std::bad_alloc();
    }
    if (PyUnicode_MAX_CHAR_VALUE(text) < 0xD800) return false;
    const auto kind = PyUnicode_KIND(text);
    const void* const data = PyUnicode_DATA(text);
    for (Py_ssize_t i = 0; i < length; ++i) {
        if (Py_UNICODE_IS_SURROGATE(PyUnicode_READ(kind, data, i))) return true;
    }
    return false;
}

Py_ssize_t FindNul(PyObject* text) {
    if (!PyUnicode_IS_COMPACT_ASCII(text)) {
        return PyUnicode_FindChar(text, 0, 0, PyUnicode_GetLength(text), 1);
    }
    const auto begin = static_cast<const char*>(PyUnicode_DATA(text));
    const void* const nul = std::memchr(begin, 0, static_cast<size_t>(PyUnicode_GET_LENGTH(text)));
    return nul != nullptr ? static_cast<const char*>(nul) - begin : -1;
}

std::optional<Utf8Text> AsUtf8(PyObject* text) {
    if (!PyUnicode_Check(text)) return std::nullopt;
    PyRef encoded;
    const char* utf8;
    Py_ssize_t length;
    if (PyUnicode_IS_COMPACT_ASCII(text)) {
        utf8 = static_cast<const char*>(PyUnicode_DATA(text));
        length = PyUnicode_GET_LENGTH(text);
    } else {
        if (HasSurrogate(text)) return std::nullopt;
        encoded = PyRef(PyUnicode_AsUTF8String(text));
        if (!encoded) {
            PyErr_Clear();
            throw std::bad_alloc();
        }
        utf8 = PyBytes_AS_STRING(encoded.Get());
        length = PyBytes_GET_SIZE(encoded.Get());
    }
    // Lengths are of type int in all layers below.
    if (length > INT_MAX) throw std::bad_alloc();
    const size_t upToNul = std::strlen(utf8);
    return Utf8Text(utf8, static_cast<int>(upToNul), upToNul < static_cast<size_t>(length),
                    std::move(encoded));
}

int GetPyObjectAsString(PyObject* object, DynStr& value) {
    const auto text = AsUtf8(object);
    if (!text) return -1;
    if (value.Set(text->Deref(), text->Length()) != VORDA_OK) throw std::bad_alloc();
    return 0;
}

int GetArgumentAsString(PyObject* pyArgs, int index, DynStr& value) {
    return GetPyObjectAsString(PyTuple_GET_ITEM(pyArgs, index), value);
}

bool WarnAboutNul(PyObject* text, const char* what, Py_ssize_t position) {
    return PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                            "The %s at position [%zd] of arguments is truncated at its NUL "
                            "character, from %zd characters to %zd.",
                            what, position, PyUnicode_GetLength(text), FindNul(text)) == 0;
}
