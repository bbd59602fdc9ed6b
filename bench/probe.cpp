// What the counts are compared with: a loop that makes the objects of a result from filled buffers,
// as little as CPython's interface allows; and the null runtime's own share. Also the marks that
// tell callgrind where a measurement begins and ends.
#include <Python.h>
#include <datetime.h>
#include <dlfcn.h>
#include <sqlext.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// One bound column: the structure or text that the null runtime writes.
struct Buffer {
    alignas(8) char Bytes[2048];
    SQLLEN Indicator;
};

// A statement of the null runtime with every column bound.
class Result {
  public:
    Result(int columns, const char* type, long rows)
        : m_buffers(static_cast<std::size_t>(columns)) {
        void* const library = dlopen("libvordart.x64.so.6", RTLD_NOW);
        const auto symbol = [&](const char* name) { return dlsym(library, name); };
        const auto allocate =
            reinterpret_cast<SQLRETURN (*)(const char*, SQLSMALLINT, SQLHANDLE, SQLHANDLE*)>(
                symbol("RT_SQLAllocHandle"));
        const auto prepare =
            reinterpret_cast<SQLRETURN (*)(const char*, SQLHSTMT, SQLWCHAR*, SQLINTEGER)>(
                symbol("RT_SQLPrepareW"));
        const auto bind =
            reinterpret_cast<SQLRETURN (*)(const char*, SQLHSTMT, SQLUSMALLINT, SQLSMALLINT,
                                           SQLPOINTER, SQLLEN, SQLLEN*)>(symbol("RT_SQLBindCol"));
        m_fetch = reinterpret_cast<SQLRETURN (*)(const char*, SQLHSTMT)>(symbol("RT_SQLFetch"));
        m_free = reinterpret_cast<SQLRETURN (*)(const char*, SQLSMALLINT, SQLHANDLE)>(
            symbol("RT_SQLFreeHandle"));
        allocate("", SQL_HANDLE_STMT, nullptr, &m_statement);
        char text[80];
        const int length =
            std::snprintf(text, sizeof text, "SELECT %d %s %ld", columns, type, rows);
        prepare("", m_statement, reinterpret_cast<SQLWCHAR*>(text), length);
        SQLUSMALLINT number = 0;
        for (Buffer& buffer : m_buffers) {
            bind("", m_statement, ++number, CTypeOf(type), buffer.Bytes, sizeof buffer.Bytes,
                 &buffer.Indicator);
        }
    }
    ~Result() { m_free("", SQL_HANDLE_STMT, m_statement); }
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;

    bool Fetch() { return m_fetch("", m_statement) == SQL_SUCCESS; }
    const std::vector<Buffer>& Buffers() const { return m_buffers; }

  private:
    static SQLSMALLINT CTypeOf(const char* type) {
        static const struct {
            const char* Name;
            SQLSMALLINT CType;
        } types[] = {{"int", SQL_C_LONG},       {"halfnull", SQL_C_LONG},
                     {"bigint", SQL_C_SBIGINT}, {"bit", SQL_C_BIT},
                     {"double", SQL_C_DOUBLE},  {"date", SQL_C_TIMESTAMP},
                     {"time", SQL_C_TIMESTAMP}, {"timestamp", SQL_C_TIMESTAMP}};
        for (const auto& known : types) {
            if (std::strcmp(known.Name, type) == 0) return known.CType;
        }
        return SQL_C_WCHAR;
    }

    std::vector<Buffer> m_buffers;
    SQLRETURN (*m_fetch)(const char*, SQLHSTMT);
    SQLRETURN (*m_free)(const char*, SQLSMALLINT, SQLHANDLE);
    SQLHSTMT m_statement = nullptr;
};

PyObject* g_decimal;

template <class Value>
Value As(const Buffer& buffer) {
    Value value;
    std::memcpy(&value, buffer.Bytes, sizeof value);
    return value;
}

using Maker = PyObject* (*)(const Buffer&);

PyObject* MakeText(const Buffer& buffer) {
    return PyUnicode_DecodeUTF8(buffer.Bytes, buffer.Indicator, nullptr);
}

Maker MakerOf(const char* type) {
    static const struct {
        const char* Name;
        Maker Make;
    } makers[] = {
        {"int", [](const Buffer& b) { return PyLong_FromLong(As<SQLINTEGER>(b)); }},
        {"halfnull", [](const Buffer& b) { return PyLong_FromLong(As<SQLINTEGER>(b)); }},
        {"bigint", [](const Buffer& b) { return PyLong_FromLongLong(As<SQLBIGINT>(b)); }},
        {"bit", [](const Buffer& b) { return PyBool_FromLong(As<SQLCHAR>(b)); }},
        {"double", [](const Buffer& b) { return PyFloat_FromDouble(As<double>(b)); }},
        {"decimal",
         [](const Buffer& b) {
             PyObject* const text = MakeText(b);
             PyObject* const value = PyObject_CallFunctionObjArgs(g_decimal, text, nullptr);
             Py_DECREF(text);
             return value;
         }},
        {"date",
         [](const Buffer& b) {
             const auto v = As<SQL_TIMESTAMP_STRUCT>(b);
             return PyDate_FromDate(v.year, v.month, v.day);
         }},
        {"time",
         [](const Buffer& b) {
             const auto v = As<SQL_TIMESTAMP_STRUCT>(b);
             return PyTime_FromTime(v.hour, v.minute, v.second,
                                    static_cast<int>(v.fraction / 1000));
         }},
        {"timestamp",
         [](const Buffer& b) {
             const auto v = As<SQL_TIMESTAMP_STRUCT>(b);
             return PyDateTime_FromDateAndTime(v.year, v.month, v.day, v.hour, v.minute, v.second,
                                               static_cast<int>(v.fraction / 1000));
         }},
    };
    for (const auto& known : makers) {
        if (std::strcmp(known.Name, type) == 0) return known.Make;
    }
    return MakeText;
}

// make(columns, type, rows): a list of tuples, from buffers that are filled once; every other row
// of "halfnull" is NULL.
PyObject* Make(PyObject*, PyObject* args) {
    int columns;
    const char* type;
    long rows;
    if (!PyArg_ParseTuple(args, "isl", &columns, &type, &rows)) return nullptr;
    Result result(columns, type, 2);
    result.Fetch();
    result.Fetch();
    const Maker make = MakerOf(type);
    const bool isHalfNull = std::strcmp(type, "halfnull") == 0;
    PyObject* const list = PyList_New(0);
    CALLGRIND_TOGGLE_COLLECT;
    for (long row = 0; row < rows; ++row) {
        PyObject* const tuple = PyTuple_New(columns);
        for (int column = 0; column < columns; ++column) {
            PyObject* value = Py_None;
            if (isHalfNull && row % 2 == 0) {
                Py_INCREF(value);
            } else {
                value = make(result.Buffers()[static_cast<std::size_t>(column)]);
            }
            PyTuple_SET_ITEM(tuple, column, value);
        }
        PyList_Append(list, tuple);
        Py_DECREF(tuple);
    }
    CALLGRIND_TOGGLE_COLLECT;
    return list;
}

// fetch(columns, type, rows): only the null runtime's own work.
PyObject* Fetch(PyObject*, PyObject* args) {
    int columns;
    const char* type;
    long rows;
    if (!PyArg_ParseTuple(args, "isl", &columns, &type, &rows)) return nullptr;
    Result result(columns, type, rows);
    CALLGRIND_TOGGLE_COLLECT;
    while (result.Fetch()) {
    }
    CALLGRIND_TOGGLE_COLLECT;
    Py_RETURN_NONE;
}

// toggle(): begins or ends counting.
PyObject* Toggle(PyObject*, PyObject*) {
    CALLGRIND_TOGGLE_COLLECT;
    Py_RETURN_NONE;
}

// dump(label): writes what was counted since the last dump, under a label.
PyObject* Dump(PyObject*, PyObject* label) {
    const char* const text = PyUnicode_AsUTF8(label);
    if (text == nullptr) return nullptr;
    CALLGRIND_DUMP_STATS_AT(text);
    Py_RETURN_NONE;
}

PyMethodDef methods[] = {
    {"make", Make, METH_VARARGS, nullptr},    {"fetch", Fetch, METH_VARARGS, nullptr},
    {"toggle", Toggle, METH_NOARGS, nullptr}, {"dump", Dump, METH_O, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef module = {
    PyModuleDef_HEAD_INIT, "probe", nullptr, -1, methods, nullptr, nullptr, nullptr, nullptr};

}  // namespace

PyMODINIT_FUNC PyInit_probe() {
    PyDateTime_IMPORT;
    PyObject* const decimal = PyImport_ImportModule("decimal");
    if (decimal == nullptr || PyDateTimeAPI == nullptr) return nullptr;
    g_decimal = PyObject_GetAttrString(decimal, "Decimal");
    Py_DECREF(decimal);
    return PyModule_Create(&module);
}
