#include "dbapi/values.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "dbapi/ascii.h"
#include "dbapi/latin1.h"
#include "include/pydatetime.h"

PyDateTime_CAPI* PyDateTimeAPI = nullptr;

namespace {

PyObject* g_decimal = nullptr;
PyObject* g_uuid = nullptr;

constexpr unsigned kNanosecondsPerMicrosecond = 1000;
// A decimal of as many digits comes back from a double as it was.
constexpr long kDigitsOfDouble = 15;

// ---- in

[[noreturn]] void Refuse(const char* state, Py_ssize_t position, const std::string& words) {
    throw Failure(state, "Parameter " + std::to_string(position) + ": " + words + ".");
}

void SetBytes(Value& value, SQLSMALLINT cType, SQLSMALLINT sqlType, const char* data,
              Py_ssize_t size, PyObject* keeper) {
    value.cType = cType;
    value.sqlType = sqlType;
    value.bytes = {data, static_cast<size_t>(size)};
    value.keeper = PyRef::Borrow(keeper);
}

void ReadText(Value& value, PyObject* text, Py_ssize_t position) {
    Py_ssize_t size = 0;
    const char* const data = PyUnicode_AsUTF8AndSize(text, &size);
    if (!data) {
        if (!PyErr_ExceptionMatches(PyExc_UnicodeError)) throw PythonError();
        PyErr_Clear();
        Refuse("22021", position, "the text has a lone surrogate, which is no character");
    }
    SetBytes(value, SQL_C_WCHAR, SQL_WVARCHAR, data, size, text);
}

void ReadInteger(Value& value, PyObject* number, Py_ssize_t position, const Sending& sending) {
    int overflow = 0;
    value.integer = PyLong_AsLongLongAndOverflow(number, &overflow);
    if (overflow != 0) {
        if (sending.toSqlite) Refuse("22003", position, "the integer exceeds 64 bits");
        const PyRef digits = Checked(PyNumber_ToBase(number, 10));
        ReadText(value, digits.Get(), position);
        value.cType = SQL_C_CHAR;
        value.sqlType = SQL_DECIMAL;
        return;
    }
    const bool isLong = value.integer == static_cast<SQLINTEGER>(value.integer);
    value.cType = isLong ? SQL_C_SLONG : SQL_C_SBIGINT;
    value.sqlType = isLong ? SQL_INTEGER : SQL_BIGINT;
}

void ReadDecimal(Value& value, PyObject* number, Py_ssize_t position, const Sending& sending) {
    const PyRef text = Checked(PyObject_Str(number));
    ReadText(value, text.Get(), position);
    value.cType = SQL_C_CHAR;
    value.sqlType = SQL_DECIMAL;
    if (!sending.toSqlite) return;
    const std::string_view mantissa = value.bytes.substr(0, value.bytes.find('E'));
    const size_t first = mantissa.find_first_of("123456789");
    const long digits =
        first == std::string_view::npos
            ? 0
            : std::count_if(mantissa.begin() + static_cast<std::ptrdiff_t>(first), mantissa.end(),
                            [](char c) { return c >= '0' && c <= '9'; });
    const bool isNumber = mantissa.find_first_of("0123456789") != std::string_view::npos;
    const double real = PyFloat_AsDouble(number);
    const bool isReal = !PyErr_Occurred();
    if (!isReal && PyErr_ExceptionMatches(PyExc_MemoryError)) throw PythonError();
    PyErr_Clear();
    const bool isTooSmall = digits > 0 && std::abs(real) < std::numeric_limits<double>::min();
    if (!isNumber || !isReal || std::isinf(real) || isTooSmall)
        Refuse("22003", position, "SQLite has no such number as this decimal");
    // As a text then, which the runtime refuses where a column would round it.
    if (digits > kDigitsOfDouble) return;
    value.keeper = PyRef();
    value.bytes = {};
    value.cType = SQL_C_DOUBLE;
    value.sqlType = SQL_DOUBLE;
    value.real = real;
}

template <class Number>
auto Narrow(int number) {
    return static_cast<Number>(number);
}

SQL_DATE_STRUCT DayOf(PyObject* day) {
    return {Narrow<SQLSMALLINT>(PyDateTime_GET_YEAR(day)),
            Narrow<SQLUSMALLINT>(PyDateTime_GET_MONTH(day)),
            Narrow<SQLUSMALLINT>(PyDateTime_GET_DAY(day))};
}

// As a text with microseconds, whatever a derived class adds.
void ReadIsoText(Value& value, PyObject* when, PyTypeObject* type, Py_ssize_t position) {
    const PyRef text =
        Checked(PyObject_CallMethod(reinterpret_cast<PyObject*>(type), "isoformat", "O", when));
    ReadText(value, text.Get(), position);
}

// Whether it has one. Throws where that cannot be sent.
bool HasZone(PyObject* when, Py_ssize_t position, const Sending& sending) {
    const PyRef zone = Checked(PyObject_GetAttrString(when, "tzinfo"));
    if (zone.Get() == Py_None) return false;
    if (!sending.keepsZones) {
        Refuse(
            "22007", position,
            "times with a time zone are not sent, since a column without one would lose it; send "
            "value.isoformat() to a column that has one, else "
            "value.astimezone(timezone.utc).replace(tzinfo=None)");
    }
    const PyRef offset = Checked(PyObject_CallMethod(when, "utcoffset", nullptr));
    if (offset.Get() == Py_None)
        Refuse("22007", position, "the time zone does not tell how far it is from UTC");
    return true;
}

void ReadStamp(Value& value, PyObject* when, Py_ssize_t position, const Sending& sending) {
    if (HasZone(when, position, sending)) {
        ReadIsoText(value, when, PyDateTimeAPI->DateTimeType, position);
        value.sqlType = kZonedTimestamp;
        return;
    }
    const SQL_DATE_STRUCT day = DayOf(when);
    value.cType = SQL_C_TYPE_TIMESTAMP;
    value.sqlType = SQL_TYPE_TIMESTAMP;
    value.stamp = {
        day.year,
        day.month,
        day.day,
        Narrow<SQLUSMALLINT>(PyDateTime_DATE_GET_HOUR(when)),
        Narrow<SQLUSMALLINT>(PyDateTime_DATE_GET_MINUTE(when)),
        Narrow<SQLUSMALLINT>(PyDateTime_DATE_GET_SECOND(when)),
        Narrow<SQLUINTEGER>(PyDateTime_DATE_GET_MICROSECOND(when)) * kNanosecondsPerMicrosecond};
}

// As a text: the standard's structure has no fraction.
void ReadTime(Value& value, PyObject* when, Py_ssize_t position, const Sending& sending) {
    const bool hasZone = HasZone(when, position, sending);
    ReadIsoText(value, when, PyDateTimeAPI->TimeType, position);
    if (hasZone) value.sqlType = kZonedTime;
}

// The types that need no look at adapters. Anything else is false.
bool ReadPlain(Value& value, PyObject* object, Py_ssize_t position, const Sending& sending) {
    if (PyLong_CheckExact(object)) {
        ReadInteger(value, object, position, sending);
    } else if (PyUnicode_CheckExact(object)) {
        ReadText(value, object, position);
    } else if (object == Py_None) {
        value.isNull = true;
    } else if (PyFloat_CheckExact(object)) {
        value.cType = SQL_C_DOUBLE;
        value.sqlType = SQL_DOUBLE;
        value.real = PyFloat_AS_DOUBLE(object);
    } else if (PyBool_Check(object)) {
        value.cType = SQL_C_BIT;
        value.sqlType = SQL_BIT;
        value.integer = object == Py_True ? 1 : 0;
    } else if (PyBytes_CheckExact(object)) {
        SetBytes(value, SQL_C_BINARY, SQL_VARBINARY, PyBytes_AS_STRING(object),
                 PyBytes_GET_SIZE(object), object);
    } else {
        return false;
    }
    return true;
}

// The types that adapters may make of others.
bool ReadOther(Value& value, PyObject* object, Py_ssize_t position, const Sending& sending) {
    if (PyDateTime_Check(object)) {
        ReadStamp(value, object, position, sending);
    } else if (PyDate_Check(object)) {
        value.cType = SQL_C_TYPE_DATE;
        value.sqlType = SQL_TYPE_DATE;
        value.day = DayOf(object);
    } else if (PyTime_Check(object)) {
        ReadTime(value, object, position, sending);
    } else if (PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject*>(g_decimal))) {
        ReadDecimal(value, object, position, sending);
    } else {
        return false;
    }
    return true;
}

// ---- out

PyRef MakeText(std::string_view bytes) {
    // Python's own decoder takes five times as long for a long text, but shares what is shorter.
    if (bytes.size() > 1 && IsAscii(bytes)) {
        PyRef text = Checked(PyUnicode_New(static_cast<Py_ssize_t>(bytes.size()), 127));
        std::memcpy(PyUnicode_1BYTE_DATA(text.Get()), bytes.data(), bytes.size());
        return text;
    }
    // A single letter of Latin-1, of two bytes, is shared, too.
    const std::optional<size_t> letters =
        bytes.size() > 2 ? latin1::CountLetters(bytes) : std::nullopt;
    if (letters) {
        PyRef text = Checked(PyUnicode_New(static_cast<Py_ssize_t>(*letters), 255));
        latin1::Decode(bytes, PyUnicode_1BYTE_DATA(text.Get()));
        return text;
    }
    PyRef text(PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), nullptr));
    if (text) return text;
    if (!PyErr_ExceptionMatches(PyExc_UnicodeDecodeError)) throw PythonError();
    PyErr_Clear();
    throw Failure("22021", "the text is not valid UTF-8; CAST(… AS BLOB) reads its bytes");
}

// An exception of one of Python's constructors says that there is no such value.
PyRef Made(PyObject* owned, const char* what) {
    if (owned) return PyRef(owned);
    if (PyErr_ExceptionMatches(PyExc_MemoryError)) throw PythonError();
    PyErr_Clear();
    throw Failure("22007", std::string("Python has no such ") + what);
}

PyRef MakeBoolean(std::string_view bytes) {
    const auto value = Load<SQLBIGINT>(bytes);
    if (value == 0 || value == 1) return PyRef::Borrow(value == 1 ? Py_True : Py_False);
    return Checked(PyLong_FromLongLong(value));
}

int Microseconds(const SQL_TIMESTAMP_STRUCT& when) {
    if (when.fraction % kNanosecondsPerMicrosecond != 0)
        throw Failure("22008", "Python's times have no fractions of microseconds");
    return static_cast<int>(when.fraction / kNanosecondsPerMicrosecond);
}

PyRef MakeDate(std::string_view bytes) {
    const auto day = Load<SQL_TIMESTAMP_STRUCT>(bytes);
    return Made(PyDate_FromDate(day.year, day.month, day.day), "date");
}

PyRef MakeTime(std::string_view bytes) {
    const auto when = Load<SQL_TIMESTAMP_STRUCT>(bytes);
    return Made(PyTime_FromTime(when.hour, when.minute, when.second, Microseconds(when)), "time");
}

PyRef MakeStamp(std::string_view bytes) {
    const auto when = Load<SQL_TIMESTAMP_STRUCT>(bytes);
    return Made(PyDateTime_FromDateAndTime(when.year, when.month, when.day, when.hour, when.minute,
                                           when.second, Microseconds(when)),
                "timestamp");
}

}  // namespace

Value ReadValue(PyObject* object, Py_ssize_t position, const Sending& sending) {
    Value value;
    if (ReadPlain(value, object, position, sending)) return value;
    const PyRef adapted = CallFace("_adapt", "(On)", object, position);
    if (!ReadPlain(value, adapted.Get(), position, sending) &&
        !ReadOther(value, adapted.Get(), position, sending)) {
        Refuse("07006", position,
               std::string("the adapter gives a ") + Py_TYPE(adapted.Get())->tp_name +
                   ", which cannot be sent");
    }
    return value;
}

PyRef MakeValue(const Cell& cell, Meaning meaning) {
    const auto size = static_cast<Py_ssize_t>(cell.bytes.size());
    switch (cell.kind) {
        case CellKind::Null:
            return PyRef::Borrow(Py_None);
        case CellKind::Integer:
            return Checked(PyLong_FromLongLong(Load<SQLBIGINT>(cell.bytes)));
        case CellKind::Boolean:
            return MakeBoolean(cell.bytes);
        case CellKind::Real:
            return Checked(PyFloat_FromDouble(Load<double>(cell.bytes)));
        case CellKind::Text: {
            PyRef text = MakeText(cell.bytes);
            if (meaning != Meaning::Uuid) return text;
            return Made(CallPython(g_uuid, text.Get()), "UUID");
        }
        case CellKind::Blob:
            return Checked(PyBytes_FromStringAndSize(cell.bytes.data(), size));
        case CellKind::Decimal:
            return Made(
                PyObject_CallFunctionObjArgs(g_decimal, MakeText(cell.bytes).Get(), nullptr),
                "decimal");
        case CellKind::Date:
            return MakeDate(cell.bytes);
        case CellKind::Time:
            return MakeTime(cell.bytes);
        case CellKind::Timestamp:
            return MakeStamp(cell.bytes);
    }
    throw Failure("HY000", "the runtime's value is of an unknown kind");
}

bool InitValues() {
    PyDateTimeAPI = static_cast<PyDateTime_CAPI*>(PyCapsule_Import("datetime.datetime_CAPI", 0));
    const PyRef decimal(PyImport_ImportModule("decimal"));
    const PyRef uuid(PyImport_ImportModule("uuid"));
    if (!PyDateTimeAPI || !decimal || !uuid) return false;
    g_decimal = PyObject_GetAttrString(decimal.Get(), "Decimal");
    g_uuid = PyObject_GetAttrString(uuid.Get(), "UUID");
    return g_decimal && g_uuid;
}

PyObject* TypeOf(SQLSMALLINT sqlType, Meaning meaning) {
    const auto type = [](auto& object) { return reinterpret_cast<PyObject*>(&object); };
    switch (sqlType) {
        case SQL_BIT:
            return type(PyBool_Type);
        case SQL_TINYINT:
        case SQL_SMALLINT:
        case SQL_INTEGER:
        case SQL_BIGINT:
            return type(PyLong_Type);
        case SQL_REAL:
        case SQL_FLOAT:
        case SQL_DOUBLE:
            return type(PyFloat_Type);
        case SQL_DECIMAL:
        case SQL_NUMERIC:
            return g_decimal;
        case SQL_BINARY:
        case SQL_VARBINARY:
        case SQL_LONGVARBINARY:
            return type(PyBytes_Type);
        case SQL_TYPE_DATE:
            return type(*PyDateTimeAPI->DateType);
        case SQL_TYPE_TIME:
            return type(*PyDateTimeAPI->TimeType);
        case SQL_TYPE_TIMESTAMP:
            return type(*PyDateTimeAPI->DateTimeType);
        default:
            return meaning == Meaning::Uuid ? g_uuid : type(PyUnicode_Type);
    }
}
