#include "include/binding.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "include/conversion.h"
#include "include/pydatetime.h"

namespace {

template <class Value, int (*Convert)(PyObject*, Value&)>
bool Put(PyObject* object, void* out) {
    Value value;
    Convert(object, value);
    std::memcpy(out, &value, sizeof value);
    return true;
}

bool PutBigint(PyObject* object, void* out) {
    long long value;
    GetPyObjectAsLongLong(object, value);
    std::memcpy(out, &value, sizeof value);
    return value != -1 || PyErr_Occurred() == nullptr;
}

bool IsDate(PyObject* value) {
    return PyDate_Check(value) && !PyDateTime_Check(value);
}

unsigned BehindNul(PyObject* value) {
    if (!PyUnicode_IS_COMPACT_ASCII(value)) return FindNul(value) < 0 ? 0u : kBehindNul;
    const auto length = static_cast<size_t>(PyUnicode_GET_LENGTH(value));
    return std::memchr(PyUnicode_DATA(value), 0, length) == nullptr ? 0u : kBehindNul;
}

unsigned TimeZone(PyObject* value) {
    return HasTimeZone(value) ? kTimeZone : 0u;
}

constexpr Encoding kText = {DBTYPE_STRING};
constexpr Encoding kNone = {DBTYPE_NONE};
constexpr Encoding kInteger = {DBTYPE_INTEGER, sizeof(int), Put<int, GetPyObjectAsInt>};
constexpr Encoding kBigint = {DBTYPE_BIGINT, sizeof(long long), PutBigint};
constexpr Encoding kDouble = {DBTYPE_DOUBLE, sizeof(double), Put<double, GetPyObjectAsDouble>};
constexpr Encoding kDateTime = {DBTYPE_DATETIME_MICRO, sizeof(_db_datetime_),
                                Put<_db_datetime_, GetPyObjectAsDatetime>};
constexpr Encoding kDate = {DBTYPE_DATE, sizeof(_db_date_), Put<_db_date_, GetPyObjectAsDate>};
constexpr Encoding kTime = {DBTYPE_TIME, sizeof(_db_time_), Put<_db_time_, GetPyObjectAsTime>};

// A bool is an int. None is an empty text to the provider, not NULL.
constexpr ParamKind kKinds[] = {
    {"text", [](PyObject* v) { return PyUnicode_Check(v) != 0; }, kText, kText, BehindNul},
    {"int", [](PyObject* v) { return PyLong_Check(v) != 0; }, kBigint, kBigint},
    {"float", [](PyObject* v) { return PyFloat_Check(v) != 0; }, kDouble, kDouble},
    {"datetime", [](PyObject* v) { return PyDateTime_Check(v) != 0; }, kDateTime, kText, TimeZone},
    {"date", IsDate, kDate, kText},
    {"time", [](PyObject* v) { return PyTime_Check(v) != 0; }, kTime, kText,
     [](PyObject* v) {
         return TimeZone(v) | (PyDateTime_TIME_GET_MICROSECOND(v) != 0 ? kFraction : 0u);
     }},
    {"None", [](PyObject* v) { return v == Py_None; }, kNone, kNone},
};

}  // namespace

const ParamKind* ParamKindOf(PyObject* value) {
    const auto* const kind =
        std::find_if(std::begin(kKinds), std::end(kKinds),
                     [value](const ParamKind& candidate) { return candidate.Fits(value); });
    return kind != std::end(kKinds) ? kind : nullptr;
}

const Encoding& SingleEncoding(const ParamKind& kind, PyObject* value) {
    if (kind.Single.Type != DBTYPE_BIGINT) return kind.Single;
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
    const bool fits = static_cast<unsigned long long>(number) + 2147483648ULL <= 4294967295ULL;
    return fits && overflow == 0 ? kInteger : kind.Single;
}
