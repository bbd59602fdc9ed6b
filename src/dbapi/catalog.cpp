// Asking the catalogue: what a database holds, as the standard's functions list it.
#include <array>
#include <cstring>
#include <limits>

#include "dbapi/logging.h"
#include "dbapi/objects.h"

namespace {

// A search argument in UTF-8; none matches everything.
struct Name {
    SQLWCHAR* text = nullptr;
    SQLSMALLINT length = 0;
};
constexpr size_t kMostNames = 6;
using Names = std::array<Name, kMostNames>;

// Has a function take the names as arguments, and behind them what else it needs.
template <size_t Count, class Function, class... More>
SQLRETURN With(Function* function, SQLHSTMT statement, const Names& n, More... more) {
    if constexpr (Count == 3) {
        return function(statement, n[0].text, n[0].length, n[1].text, n[1].length, n[2].text,
                        n[2].length, more...);
    } else if constexpr (Count == 4) {
        return With<3>(function, statement, n, n[3].text, n[3].length, more...);
    } else {
        return With<4>(function, statement, n, n[4].text, n[4].length, n[5].text, n[5].length);
    }
}

struct Function {
    const char* name;
    size_t names;
    SQLRETURN (*call)(SQLHSTMT statement, const Names& names, long option);
};

constexpr Function kFunctions[] = {
    {"tables", 4,
     [](SQLHSTMT statement, const Names& names, long) {
         return With<4>(SQLTablesW, statement, names);
     }},
    {"columns", 4,
     [](SQLHSTMT statement, const Names& names, long) {
         return With<4>(SQLColumnsW, statement, names);
     }},
    {"primaryKeys", 3,
     [](SQLHSTMT statement, const Names& names, long) {
         return With<3>(SQLPrimaryKeysW, statement, names);
     }},
    {"foreignKeys", 6,
     [](SQLHSTMT statement, const Names& names, long) {
         return With<6>(SQLForeignKeysW, statement, names);
     }},
    {"statistics", 3,
     [](SQLHSTMT statement, const Names& names, long onlyUnique) {
         const SQLUSMALLINT which = onlyUnique ? SQL_INDEX_UNIQUE : SQL_INDEX_ALL;
         return With<3>(SQLStatisticsW, statement, names, which, SQLUSMALLINT{SQL_QUICK});
     }},
    {"procedures", 3,
     [](SQLHSTMT statement, const Names& names, long) {
         return With<3>(SQLProceduresW, statement, names);
     }},
    {"getTypeInfo", 0,
     [](SQLHSTMT statement, const Names&, long type) {
         return SQLGetTypeInfoW(statement, static_cast<SQLSMALLINT>(type));
     }},
};

const Function& FunctionNamed(PyObject* name) {
    for (const Function& function : kFunctions) {
        if (PyUnicode_CompareWithASCIIString(name, function.name) == 0) return function;
    }
    throw Failure("HY000", "There is no such function of the catalogue.");
}

// Of a str, whose bytes it uses, or None.
Name ReadName(PyObject* given) {
    if (given == Py_None) return {};
    Py_ssize_t length = 0;
    const char* const utf8 = PyUnicode_AsUTF8AndSize(given, &length);
    if (!utf8) throw PythonError();
    if (length > std::numeric_limits<SQLSMALLINT>::max() ||
        std::strlen(utf8) != static_cast<size_t>(length))
        throw Failure("HY090", "A name is too long, or has a NUL character.");
    return {AsWideText(utf8), static_cast<SQLSMALLINT>(length)};
}

}  // namespace

PyRef CursorAskCatalog(PyObject* object, PyObject* const* args, Py_ssize_t count) {
    if (count != 3 || !PyUnicode_Check(args[0]) || !PyTuple_Check(args[1])) {
        PyErr_SetString(PyExc_TypeError, "_ask_catalog() takes a function, names and an option");
        return PyRef();
    }
    const Function& function = FunctionNamed(args[0]);
    if (static_cast<size_t>(PyTuple_GET_SIZE(args[1])) != function.names)
        throw Failure("HY000", "The function takes another number of names.");
    const long option = PyLong_AsLong(args[2]);
    if (PyErr_Occurred()) throw PythonError();
    if (option != static_cast<SQLSMALLINT>(option))
        throw Failure("HY004", "There is no such type.");
    Names names;
    for (size_t i = 0; i < function.names; ++i)
        names[i] = ReadName(PyTuple_GET_ITEM(args[1], static_cast<Py_ssize_t>(i)));

    const Call call(object);
    CursorObject* const self = AsCursor(object);
    LinkOf(reinterpret_cast<PyObject*>(self->connection));
    Link& link = *self->link;
    Logged logged(args[0], function.names);
    const Link::Turn turn(link);
    Statement& statement = UseStatement(self, nullptr);
    link.Wait(statement.Handle(), [&] {
        statement.Ask([&](SQLHSTMT handle) { return function.call(handle, names, option); });
    });
    logged.Succeeded(-1);
    return PyRef::Borrow(object);
}
