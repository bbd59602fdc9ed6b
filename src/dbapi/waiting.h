// Calls that may wait: made without the interpreter lock, and so that Ctrl-C and all other signals
// are handled meanwhile.
#pragma once

#include <functional>
#include <type_traits>

#include "include/pyref.h"

// Lets other Python threads run as long as it lives.
class Unlocked {
  public:
    Unlocked() : m_state(PyEval_SaveThread()) {}
    ~Unlocked() { PyEval_RestoreThread(m_state); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

  private:
    PyThreadState* const m_state;
};

// How many times the ancestors of this process were forked; a connection of another number belongs
// to a parent.
unsigned ForkCount();

// Whether signals are handled by this thread.
bool InMainThread();

// Runs `work` in a thread of its own while this one, the main one, waits without the interpreter
// lock and sees to signals several times a second. When a handler raises, `cancel` is called, from
// here and without the lock, and again for each further exception; the wait goes on until the work
// is over, and ends with the last exception as a PythonError. `work` must not throw.
void WaitAside(const std::function<void()>& work, const std::function<void()>& cancel);
