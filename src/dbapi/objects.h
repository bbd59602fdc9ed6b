// The Python types Connection and Cursor, which the face extends.
#pragma once

#include <memory>
#include <vector>

#include "dbapi/link.h"

struct ConnectionObject {
    PyObject ob_base;
    PyObject* weakReferences;
    PyObject* rowFactory;
    std::shared_ptr<Link> link;
};

// What CPython finds by its offset.
struct CursorFields {
    PyObject ob_base;
    PyObject* weakReferences;
    ConnectionObject* connection;  // null once closed
    PyObject* rowFactory;
    PyObject* makeRow;  // what the factory gave for this result, or null
    Py_ssize_t arraySize;
    SQLLEN rowCount;
    unsigned long user;  // the thread that is in a call, or 0
};

struct CursorObject : CursorFields {
    std::shared_ptr<Link> link;
    std::unique_ptr<Statement> statement;
    std::vector<Value> values;
};

extern PyTypeObject ConnectionType;
extern PyTypeObject CursorType;

// The link of an open connection; throws for one that is closed or was never opened.
Link& LinkOf(PyObject* connection);

// A method as CPython calls it.
template <PyRef (*Method)(PyObject*, PyObject*)>
PyObject* Adapted(PyObject* self, PyObject* argument) noexcept {
    return AtBoundary<PyObject*>(nullptr, [&] { return Method(self, argument).Release(); });
}

inline CursorObject* AsCursor(PyObject* cursor) {
    return reinterpret_cast<CursorObject*>(cursor);
}
// Lets go of what the cursor executed last.
void GiveStatementBack(CursorObject* cursor);

// One call of a cursor. Whatever runs Python code in the middle of it finds the cursor taken.
class Call {
  public:
    explicit Call(PyObject* cursor) : Call(*AsCursor(cursor), false) {
        if (!m_cursor.connection) throw Failure("24000", "The cursor is closed.");
    }
    // One that only looks, and may do so within another of this thread as long as that is not in
    // the runtime.
    static Call ThatLooks(PyObject* cursor) { return Call(*AsCursor(cursor), true); }
    ~Call() {
        if (!m_isWithin) m_cursor.user = 0;
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

  private:
    Call(CursorObject& cursor, bool onlyLooks)
        : m_cursor(cursor),
          m_isWithin(onlyLooks && cursor.user == PyThread_get_thread_ident() &&
                     !(cursor.link && cursor.link->HasTurn())) {
        if (m_isWithin) return;
        if (m_cursor.user != 0) {
            throw Failure("HY010",
                          "The cursor is busy: another thread uses it, or this was called by what "
                          "it calls itself.");
        }
        m_cursor.user = PyThread_get_thread_ident();
    }

    CursorObject& m_cursor;
    const bool m_isWithin;
};

// The methods that execute.
PyRef CursorExecute(PyObject* cursor, PyObject* const* args, Py_ssize_t count);
PyRef CursorExecuteMany(PyObject* cursor, PyObject* const* args, Py_ssize_t count);
PyRef CursorAskCatalog(PyObject* cursor, PyObject* const* args, Py_ssize_t count);

// A function of the module: rows as text, for the shell.
PyObject* CsvLines(PyObject* module, PyObject* args) noexcept;

// Reads what was given as parameters into the cursor's values. A mapping makes `sql` the statement
// with plain markers.
void ReadParameters(CursorObject* self, PyObject* given, PyRef& sql);
// Throws where a statement would end the transaction of a batch that this thread is in.
void RefuseToEndBatch(const Link& link, PyObject* sql);
// Has the cursor hold a statement for the text, or one without; for the holder of a turn.
Statement& UseStatement(CursorObject* self, PyObject* sql);
