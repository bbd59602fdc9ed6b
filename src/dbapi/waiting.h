// Calls that may wait: made without the interpreter lock, and so that Ctrl-C and all other signals
// are handled meanwhile.
#pragma once

#include <chrono>
#include <functional>

#include "include/pyref.h"

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

// Takes the interpreter lock back. At the end of the program, which goes on without this thread, it
// waits for ever.
void Relock(PyThreadState* state) noexcept;

// Whether the program ends: other threads never let go of what they hold.
bool ProgramEnds();

// Lets other Python threads run as long as it lives.
class Unlocked {
  public:
    Unlocked() : m_state(PyEval_SaveThread()) {}
    ~Unlocked() { Relock(m_state); }
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

  private:
    PyThreadState* const m_state;
};

// Once, at the import; false with an error set.
bool InitWaiting();
// Whether signals are handled by this thread.
bool InMainThread();
// Whether this is the only thread of its process, where that can be told.
inline bool IsOnlyThread() {
#if __has_include(<sys/single_threaded.h>)
    return __libc_single_threaded != 0;
#else
    return false;
#endif
}

// The same with the lock taken back and given up again now and then, for a call in this thread
// whose runtime looks in at the middle of it: Look() sees to signals, and answers whether a handler
// has raised. In the main thread only; elsewhere it does nothing.
class Watched {
  public:
    Watched() : m_isMain(InMainThread()), m_state(PyEval_SaveThread()) {}
    ~Watched() {
        Relock(m_state);
        Restore();
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;

    bool Look();
    // Whether a handler has raised; then its exception is set when this ends.
    bool HasRaised() const { return m_type != nullptr; }

  private:
    void Restore();

    const bool m_isMain;
    PyThreadState* const m_state;
    std::chrono::steady_clock::time_point m_nextLook;
    PyObject* m_type = nullptr;
    PyObject* m_value = nullptr;
    PyObject* m_trace = nullptr;
};

// How many times the ancestors of this process were forked; a connection of another number belongs
// to a parent.
unsigned ForkCount();

// Runs `work` without the interpreter lock, for the main thread, and sees to signals meanwhile.
// When a handler raises, `cancel` is called, without the lock, and again for each further
// exception; the wait goes on until the work is over, and ends with the last exception as a
// PythonError. `work` must not throw.
//
// Handlers run in this thread while the work is done in another, to which handing it over takes
// longer than a server's answer. Where only Ctrl-C has one, this thread does the work, and another
// cancels it.
void WaitCancellably(const std::function<void()>& work, const std::function<void()>& cancel);

// Runs `work` in another thread for at most so long (0: for ever), for any thread, and sees to
// signals in the main one. When the time is over or a handler raises, `work` goes on alone. Answers
// whether it is done; throws a PythonError. What `work` holds is let go of in its thread, without
// the interpreter lock. `work` must not throw.
bool WaitOrLeave(std::function<void()> work, std::chrono::seconds limit);
