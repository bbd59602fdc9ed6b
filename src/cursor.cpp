#include "include/cursor.h"

#include <structmember.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

#include "include/conversion.h"
#include "include/errors.h"
#include "include/modulecore.h"

namespace {

PyCursor* AsCursor(PyObject* object) {
    return reinterpret_cast<PyCursor*>(object);
}

PyRef PyCursor_CloseMethod(PyObject* self, PyObject*) {
    PyCursor* const cursor = CursorValidate(self, false, false);
    if (cursor == nullptr) return PyRef();
    PyCursor_Close(cursor);
    return PyRef::Borrow(Py_None);
}

void PyCursor_Dealloc(PyObject* self) {
    PyCursor_Close(AsCursor(self));
    std::destroy_at(&AsCursor(self)->Plan);
    std::destroy_at(&AsCursor(self)->Described);
    PyObject_Free(self);
}

PyMethodDef PyCursor_Methods[] = {
    {"close", AsMethod<PyCursor_CloseMethod>, METH_NOARGS,
     "close() --> None\n\n"
     "Close the cursor now (rather than whenever __del__ is called).\n\n"
     "The cursor will be unusable from this point forward; an Error (or subclass)\n"
     "exception will be raised if any operation is attempted with the cursor."},
    {"execute", AsFastMethod<ExecuteStatement>(), METH_FASTCALL,
     "execute(sql, [params]) --> Cursor\n\n"
     "Prepare and execute a database operation (query or command).\n\n"
     "Parameters may be provided as a sequence (as specified by the DB API) or\n"
     "simply passed in one after another (non-standard):\n\n"
     "  cursor.execute(sql, (param1, param2))\n\n"
     "    or\n\n"
     "  cursor.execute(sql, param1, param2)"},
    {"executemany", AsMethod<PyCursor_ExecuteMany>, METH_VARARGS,
     "executemany(sql, seq_of_params) --> Cursor\n\n"
     "Prepare a database operation (query or command) and then execute it against all\n"
     "parameter sequences found in the sequence seq_of_params."},
    {"fetchall", AsMethod<PyCursor_FetchAll>, METH_NOARGS,
     "fetchall() --> list of Rows\n\n"
     "Fetch all (remaining) rows of a query result, returning them as a sequence of\n"
     "sequences (e.g. a list of tuples). Note that the cursor's arraysize attribute can\n"
     "affect the performance of this operation.\n\n"
     "An Error (or subclass) exception is raised if the previous call to .execute*() did\n"
     "not produce any result set or no call was issued yet."},
    {"fetchmany", AsMethod<PyCursor_FetchMany>, METH_VARARGS,
     "fetchmany(size=cursor.arraysize) --> list of Rows\n\n"
     "Fetch the next set of rows of a query result, returning a sequence of sequences\n"
     "(e.g. a list of tuples). An empty sequence is returned when no more rows are\n"
     "available.\n\n"
     "The number of rows to fetch per call is specified by the parameter. If it is not\n"
     "given, the cursor's arraysize determines the number of rows to be fetched."},
    {"fetchone", AsMethod<PyCursor_FetchOne>, METH_NOARGS,
     "fetchone() --> Row | None\n\n"
     "Fetch the next row of a query result set, returning a single sequence, or None\n"
     "when no more data is available."},
    {"next", AsMethod<PyCursor_Next>, METH_NOARGS,
     "next() --> Row | None\n\n"
     "Return the next row from the currently executing SQL statement using the same\n"
     "semantics as .fetchone(). A StopIteration exception is raised when the result set\n"
     "is exhausted."},
    {"callproc", AsMethod<PyCursor_CallProc>, METH_VARARGS,
     "callproc(proc_name, [params]) --> params\n\n"
     "Call a stored database procedure with the given name. The sequence of parameters\n"
     "must contain one entry for each argument that the procedure expects."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef PyCursor_Members[] = {
    {"rowcount", T_INT, offsetof(PyCursorFields, RowCount), READONLY,
     "This read-only attribute specifies the number of rows that the\n"
     "last .execute*() produced (for DQL statements like SELECT) or affected\n"
     "(for DML statements like UPDATE or INSERT).\n\n"
     "The attribute is - 1 in case no.execute* () has been performed on the cursor or\n"
     "the rowcount of the last operation is cannot be determined by the interface."},
    {"description", T_OBJECT_EX, offsetof(PyCursorFields, Description), READONLY,
     "This read-only attribute is a sequence of 7-item sequences.\n\n"
     "Each of these sequences contains information describing one result column:\n"
     "name, type_code, display_size, internal_size, precision, scale, null_ok.\n\n"
     "The first two items (name and type_code) are mandatory, the other five are\n"
     "optionaland are set to None if no meaningful values can be provided."},
    {"arraysize", T_INT, offsetof(PyCursorFields, ArraySize), 0,
     "This read/write attribute specifies the number of rows to fetch at a time\n"
     "with .fetchmany(). It defaults to 1 meaning to fetch a single row at a time.\n\n"
     "Implementations must observe this value with respect to the.fetchmany() method,\n"
     "but are free to interact with the database a single row at a time."},
    {"connection", T_OBJECT_EX, offsetof(PyCursorFields, Connection), READONLY,
     "This read-only attribute return a reference to the Connection object on\n"
     "which the cursor was created."},
    {nullptr, 0, 0, 0, nullptr},
};

// One item of the description: (name, type_code, None, precision, precision, scale, null_ok).
PyRef GetColumnPyObject(const ColumnDescription& column) {
    // A name may have been truncated inside a character by the provider, or be in another encoding.
    const PyRef name(PyUnicode_DecodeUTF8(
        column.Name, static_cast<Py_ssize_t>(std::strlen(column.Name)), "replace"));
    if (!name) return PyRef();
    const PyRef type = ConvertSQLTypeToPyType(column.DataType);
    if (!type) return PyRef();
    return PyRef(Py_BuildValue("(OOOiiiO)", name.Get(), type.Get(), Py_None, column.Precision,
                               column.Precision, column.Scale,
                               column.IsNullable ? Py_True : Py_False));
}

// Whether the last statement has the columns that the cursor's description shows.
bool IsDescribed(const PyCursor* cursor, int columns) {
    if (cursor->Described.size() != static_cast<size_t>(columns)) return false;
    for (int i = 0; i < columns; ++i) {
        ColumnDescription column;
        cursor->dbs->DescribeColumn(i, column);
        if (!(column == cursor->Described[static_cast<size_t>(i)])) return false;
    }
    return true;
}

}  // namespace

PyTypeObject CursorType = {
    .ob_base = PyVarObject_HEAD_INIT(nullptr, 0).tp_basicsize = sizeof(PyCursor),
    .tp_dealloc = PyCursor_Dealloc,
    .tp_flags = Py_TPFLAGS_DEFAULT,
    .tp_iter = PyCursor_Iter,
    .tp_iternext = PyCursor_IterNext,
    .tp_methods = PyCursor_Methods,
    .tp_members = PyCursor_Members,
};

int InitCursorType(PyObject* module, const char* name, const char* doc) {
    return InitType(CursorType, module, "Cursor", name, doc);
}

PyRef PyCursor_New(PyConnection* connection) {
    PyRef object(reinterpret_cast<PyObject*>(PyObject_New(PyCursor, &CursorType)));
    if (!object) return PyRef();
    PyCursor* const cursor = AsCursor(object.Get());
    Py_INCREF(connection);
    cursor->Connection = connection;
    cursor->dbs = connection->dbs;
    Py_INCREF(Py_None);
    cursor->Description = Py_None;
    cursor->ArraySize = -1;
    cursor->RowCount = -1;
    std::construct_at(&cursor->Plan);
    std::construct_at(&cursor->Described);
    return object;
}

PyCursor* CursorValidate(PyObject* object, bool checkConnOpen, bool checkResult) {
    if (Py_TYPE(object) != &CursorType) {
        Raise(InternalError, "Invalid cursor object.");
        return nullptr;
    }
    PyCursor* const cursor = AsCursor(object);
    if (cursor->Connection == nullptr) {
        Raise(ProgrammingError, "Attempt to use a closed cursor");
        return nullptr;
    }
    const Dbs* const dbs = cursor->Connection->dbs;
    if ((checkConnOpen || checkResult) && (dbs == nullptr || !dbs->IsOpen())) {
        Raise(ProgrammingError, "Attempt to use a closed connection");
        return nullptr;
    }
    if (checkResult && cursor->dbs->GetColumnCount() == 0) {
        Raise(ProgrammingError, "No results.  Previous SQL was not a DQL.");
        return nullptr;
    }
    return cursor;
}

int PyCursor_Close(PyCursor* cursor) {
    // Each field is reset before its reference goes, since that may run any code.
    const PyRef connection(reinterpret_cast<PyObject*>(std::exchange(cursor->Connection, nullptr)));
    const PyRef description(std::exchange(cursor->Description, nullptr));
    cursor->ArraySize = -1;
    cursor->RowCount = -1;
    return 0;
}

int BuildCursorDescription(PyCursor* cursor) {
    const int columns = cursor->dbs->GetColumnCount();
    // Nobody can change a description, so the one of the same columns serves again: programs run
    // the same query many times.
    if (columns < 1 || IsDescribed(cursor, columns)) return 0;

    // The provider is read to the end first: making the Python objects may import modules, whose
    // code may close the connection.
    std::vector<ColumnDescription> described(static_cast<size_t>(columns));
    for (int i = 0; i < columns; ++i) {
        cursor->dbs->DescribeColumn(i, described[static_cast<size_t>(i)]);
    }
    PyRef description(PyTuple_New(columns));
    if (!description) return -1;
    for (int i = 0; i < columns; ++i) {
        PyRef item = GetColumnPyObject(described[static_cast<size_t>(i)]);
        if (!item) return -1;
        PyTuple_SET_ITEM(description.Get(), i, item.Release());
    }
    if (cursor->Connection != nullptr) {
        cursor->Described = std::move(described);
        const PyRef old(std::exchange(cursor->Description, description.Release()));
    }
    return 0;
}
