// PyRef, the owner of one Python reference, and the frame around every function that Python calls.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <unistd.h>

#include <exception>
#include <new>
#include <utility>

class PyRef {
  public:
    PyRef() = default;
    // Takes over a new reference; null stands for a failure with an error set.
    explicit PyRef(PyObject* owned) : m_object(owned) {}
    // Adds a reference of its own to a borrowed one.
    static PyRef Borrow(PyObject* borrowed) {
        Py_XINCREF(borrowed);
        return PyRef(borrowed);
    }
    PyRef(PyRef&& other) noexcept : m_object(other.Release()) {}
    PyRef& operator=(PyRef&& other) noexcept {
        // The old object dies last: its destructor may run any code.
        PyRef old(std::exchange(m_object, other.Release()));
        return *this;
    }
    PyRef(const PyRef&) = delete;
    PyRef& operator=(const PyRef&) = delete;
    ~PyRef() { Py_XDECREF(m_object); }

    PyObject* Get() const { return m_object; }
    // Hands the reference over to the caller.
    PyObject* Release() { return std::exchange(m_object, nullptr); }
    explicit operator bool() const { return m_object != nullptr; }

  private:
    PyObject* m_object = nullptr;
};

// For a thread that nobody needs any more: it waits for the end of the process.
[[noreturn]] inline void StayForEver() {
    for (;;) pause();
}

// Runs what may run Python code or wait for the interpreter lock. When the program ends, CPython
// ends other threads in there by unwinding their stack: our frames would be left without the lock.
// Such a thread stays.
template <class Call>
auto InPython(Call&& call) noexcept {
    try {
        return call();
    } catch (...) {
        StayForEver();
    }
}

// Calls an object so; a new reference, or null with an error set.
template <class... Arguments>
PyObject* CallPython(PyObject* callable, Arguments*... arguments) noexcept {
    return InPython([&] { return PyObject_CallFunctionObjArgs(callable, arguments..., nullptr); });
}

// Runs `body` for a caller in C: an exception for want of memory becomes MemoryError.
template <class Result, class Body>
Result CalledFromPython(Result failed, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        // What ends a thread is no exception of C++.
        if (!std::current_exception()) StayForEver();
        PyErr_NoMemory();
        return failed;
    }
}

// Adapts `Method`, which returns a PyRef for (self, args, count), to the calling convention
// METH_FASTCALL, which makes no tuple of the arguments.
template <PyRef (*Method)(PyObject*, PyObject* const*, Py_ssize_t)>
PyCFunction AsFastMethod() {
    constexpr PyObject* (*method)(PyObject*, PyObject* const*, Py_ssize_t) =
        [](PyObject* self, PyObject* const* args, Py_ssize_t count) noexcept {
            return CalledFromPython<PyObject*>(nullptr,
                                               [&] { return Method(self, args, count).Release(); });
        };
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(method));
}

// Adapts `Method`, which returns a PyRef for (self, args), to the C calling convention.
template <PyRef (*Method)(PyObject*, PyObject*)>
PyObject* AsMethod(PyObject* self, PyObject* args) noexcept {
    return CalledFromPython<PyObject*>(nullptr, [&] { return Method(self, args).Release(); });
}
