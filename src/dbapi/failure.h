// What goes wrong below Python: thrown as a Failure, with or without the interpreter lock, and
// raised at the boundary as an exception of the class that the face's table has for its SQLSTATE.
#pragma once

#include <string>
#include <vector>

#include "include/pyref.h"
#include "include/sqltypes.h"

// One diagnostic record: SQLSTATE, the driver's own code and its words (UTF-8).
struct Diagnostic {
    std::string state;
    long native = 0;
    std::string words;
};

class Failure {
  public:
    explicit Failure(std::vector<Diagnostic> records) : m_records(std::move(records)) {}
    Failure(const char* state, std::string words) : m_records{{state, 0, std::move(words)}} {}

    const std::vector<Diagnostic>& Records() const { return m_records; }
    // Sets the Python error. The interpreter lock is held.
    void Raise() const;

  private:
    std::vector<Diagnostic> m_records;
};

// A new handle. One of which the runtime leaves open whether it is there is freed.
SQLHANDLE NewHandle(SQLSMALLINT type, SQLSMALLINT parentType, SQLHANDLE parent);

// Thrown when a Python error is set already.
struct PythonError {};

// The records of a handle behind its last call, from the `first` on and at most so many.
std::vector<Diagnostic> ReadRecords(SQLSMALLINT handleType, SQLHANDLE handle, SQLSMALLINT first = 1,
                                    SQLSMALLINT most = 16);
// The same; one that says so if there are none.
std::vector<Diagnostic> ReadDiagnostics(SQLSMALLINT handleType, SQLHANDLE handle,
                                        SQLSMALLINT first = 1, SQLSMALLINT most = 16);

// Throws what a handle has to say unless `status` is a success.
inline void Check(SQLRETURN status, SQLSMALLINT handleType, SQLHANDLE handle) {
    if (!OdbcSucceeded(status)) throw Failure(ReadDiagnostics(handleType, handle));
}

// The same for a statement's call that may find that there is nothing, which is no failure.
inline void CheckFound(SQLRETURN status, SQLHSTMT statement) {
    if (status != SQL_NO_DATA) Check(status, SQL_HANDLE_STMT, statement);
}

// A new reference, or a PythonError.
inline PyRef Checked(PyObject* owned) {
    if (!owned) throw PythonError();
    return PyRef(owned);
}

// Runs `body` for a caller in C: what it throws becomes a Python error, and the result `failed`.
template <class Result, class Body>
Result AtBoundary(Result failed, Body&& body) noexcept {
    return CalledFromPython(failed, [&] {
        try {
            return body();
        } catch (const Failure& failure) {
            failure.Raise();
        } catch (const PythonError&) {
        }
        return failed;
    });
}

// A function of the module: takes what the core uses of the face, by name.
PyObject* SetFace(PyObject* module, PyObject* functions) noexcept;
PyRef OfFace(const char* name);
// Calls a function of the face, and answers what it returns.
PyRef CallFace(const char* function, const char* format, ...);
