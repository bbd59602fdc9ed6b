#include "dbapi/waiting.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "dbapi/failure.h"

namespace {

constexpr std::chrono::milliseconds kTick{50};
constexpr std::chrono::milliseconds kAgain{200};

unsigned g_forks = 0;
unsigned long g_mainThread = 0;
PyObject* g_signals = nullptr;         // the module
PyCFunction g_getsignal = nullptr;     // of it
PyObject* g_defaultHandler = nullptr;  // of Ctrl-C

// Functions of real-time signals are not looked for: they run after the call.
constexpr int kFirstRealTime = 32;
PyObject* g_numbers[kFirstRealTime] = {};

void BlockSignals() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

// A thread that does one piece of work at a time for somebody who waits for it. It never ends
// before it is left alone: the process may exit while it works.
class Worker {
  public:
    Worker() : m_forks(ForkCount()) {
        std::thread([this] { Serve(); }).detach();
    }

    // Threads do not live on in a child process.
    bool IsAlive() const { return m_forks == ForkCount(); }

    void Begin(std::function<void()> work) {
        const std::lock_guard lock(m_mutex);
        m_work = std::move(work);
        m_isBusy = true;
        m_changed.notify_all();
    }

    // Whether the work was done within the time.
    bool Finished(std::chrono::milliseconds time) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, time, [this] { return !m_isBusy; });
    }

    // Has it end with its work, if that is not done: nobody waits for it any more.
    bool Leave() {
        const std::lock_guard lock(m_mutex);
        m_isLeft = m_isBusy;
        return m_isLeft;
    }

  private:
    void Serve() {
        BlockSignals();  // which are the other threads' business
        std::unique_lock lock(m_mutex);
        while (!m_isLeft) {
            m_changed.wait(lock, [this] { return m_isBusy; });
            lock.unlock();
            m_work();
            m_work = nullptr;
            lock.lock();
            m_isBusy = false;
            m_changed.notify_all();
        }
        lock.unlock();
        delete this;
    }

    const unsigned m_forks;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::function<void()> m_work;
    bool m_isBusy = false;
    bool m_isLeft = false;
};

// Those without work; used under the interpreter lock. A handler that runs during a wait may wait,
// too.
std::vector<Worker*>& IdleWorkers() {
    static auto* const workers = new std::vector<Worker*>();
    return *workers;
}

Worker* TakeWorker() {
    std::vector<Worker*>& idle = IdleWorkers();
    idle.reserve(idle.size() + 1);
    while (!idle.empty()) {
        Worker* const worker = idle.back();
        idle.pop_back();
        if (worker->IsAlive()) return worker;
    }
    return new Worker();
}

enum class Handled { Nothing, CtrlC, Others };

// Which signals run functions in Python: none, Ctrl-C alone, and the one which raises
// KeyboardInterrupt, or others, too. Asked before every call.
Handled WhatIsHandled() {
    Handled handled = Handled::Nothing;
    for (int number = 1; number < kFirstRealTime; ++number) {
        const PyRef handler = Checked(g_getsignal(g_signals, g_numbers[number]));
        if (number == SIGINT && handler.Get() == g_defaultHandler) {
            handled = Handled::CtrlC;
        } else if (PyCallable_Check(handler.Get())) {
            return Handled::Others;
        }
    }
    return handled;
}

// Has Ctrl-C cancel what the main thread does itself, from a thread that waits for it. Like a
// worker, that never ends.
class CtrlCWatch {
  public:
    // The one of this process.
    static CtrlCWatch& Get() {
        static CtrlCWatch* watch = nullptr;
        if (!watch || watch->m_forks != ForkCount()) watch = new CtrlCWatch();
        return *watch;
    }

    // False if what is there is not of Python's kind, and nothing is done.
    bool Run(const std::function<void()>& work, const std::function<void()>& cancel) {
        SetCancel(&cancel);
        s_watch = this;
        if (!Install()) {
            SetCancel(nullptr);
            return false;
        }
        // Nobody has seen what came just before.
        const bool isLate = PyErr_CheckSignals() < 0;
        bool wasCancelled = false;
        {
            const Unlocked unlocked;
            if (!isLate) work();
            sigaction(SIGINT, &m_theirs, nullptr);
            wasCancelled = SetCancel(nullptr);
        }
        if (isLate || (wasCancelled && PyErr_CheckSignals() < 0)) throw PythonError();
        return true;
    }

  private:
    CtrlCWatch() : m_forks(ForkCount()) {
        sem_init(&m_wake, 0, 0);
        std::thread([this] { Serve(); }).detach();
    }

    // Puts ours in front of what is there, which mostly is what was there the last time: a call of
    // the system for each wait counts.
    bool Install() {
        const bool isTried = m_ours.sa_handler != nullptr;
        sigaction(SIGINT, isTried ? &m_ours : nullptr, &m_theirs);
        const auto theirs = m_theirs.sa_handler;
        if (isTried && theirs == s_next) return true;
        if (isTried) sigaction(SIGINT, &m_theirs, nullptr);
        const bool isOther = (static_cast<unsigned>(m_theirs.sa_flags) & SA_SIGINFO) != 0;
        if (isOther || theirs == SIG_DFL || theirs == SIG_IGN) return false;
        // In a child that was forked in the middle of a call it is there already.
        if (theirs != OnCtrlC) s_next = theirs;
        m_ours = m_theirs;
        m_ours.sa_handler = OnCtrlC;
        sigaction(SIGINT, &m_ours, nullptr);
        return true;
    }

    // In front of Python's own.
    static void OnCtrlC(int number) {
        CtrlCWatch& watch = *s_watch;
        watch.m_came = true;
        sem_post(&watch.m_wake);
        s_next.load()(number);
    }

    // Answers whether the one before was called.
    bool SetCancel(const std::function<void()>* cancel) {
        const std::lock_guard lock(m_mutex);
        m_cancel = cancel;
        m_came = false;
        return std::exchange(m_wasCancelled, false);
    }

    [[noreturn]] void Serve() {
        BlockSignals();
        for (;;) {
            sem_wait(&m_wake);
            // Again, since a driver that has not begun has nothing to cancel.
            while (Cancel()) std::this_thread::sleep_for(kAgain);
        }
    }

    // Answers whether the call may still go on.
    bool Cancel() {
        const std::lock_guard lock(m_mutex);
        // What came in an earlier call is none of this one's business.
        if (!m_cancel || !m_came) return false;
        m_wasCancelled = true;
        (*m_cancel)();
        return true;
    }

    static inline std::atomic<CtrlCWatch*> s_watch;
    static inline std::atomic<void (*)(int)> s_next;

    const unsigned m_forks;
    struct sigaction m_ours {};
    struct sigaction m_theirs {};
    sem_t m_wake{};
    std::mutex m_mutex;
    const std::function<void()>* m_cancel = nullptr;
    std::atomic<bool> m_came = false;
    bool m_wasCancelled = false;
};

// An exception put aside, since others may come before it is raised.
class RaisedAside {
  public:
    void Take() {
        PyObject *type, *value, *trace;
        PyErr_Fetch(&type, &value, &trace);
        m_type = PyRef(type);
        m_value = PyRef(value);
        m_trace = PyRef(trace);
    }
    // Raises it again, if there is one.
    void Throw() {
        if (!m_type) return;
        PyErr_Restore(m_type.Release(), m_value.Release(), m_trace.Release());
        throw PythonError();
    }

  private:
    PyRef m_type, m_value, m_trace;
};

// Handles signals in a wait without the interpreter lock, whose state it is; an exception goes to
// `raised`.
bool HandlersRaise(PyThreadState* state, RaisedAside& raised) {
    Relock(state);
    const bool raises = PyErr_CheckSignals() < 0;
    if (raises) raised.Take();
    PyEval_SaveThread();
    return raises;
}

}  // namespace

void Relock(PyThreadState* state) noexcept {
    InPython([&] { PyEval_RestoreThread(state); });
}

bool ProgramEnds() {
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsFinalizing() != 0;
#else
    return _Py_IsFinalizing() != 0;
#endif
}

unsigned ForkCount() {
    [[maybe_unused]] static const int registered =
        pthread_atfork(nullptr, nullptr, [] { ++g_forks; });
    return g_forks;
}

bool InitWaiting() {
    // The one that imports the module may be another: the interpreter is asked.
    const PyRef threading(PyImport_ImportModule("threading"));
    const PyRef thread(threading ? PyObject_CallMethod(threading.Get(), "main_thread", nullptr)
                                 : nullptr);
    const PyRef number(thread ? PyObject_GetAttrString(thread.Get(), "ident") : nullptr);
    if (!number) return false;
    g_mainThread = PyLong_AsUnsignedLong(number.Get());
    // Not that of the module "signal", which makes an enum of each answer.
    PyRef signals(PyImport_ImportModule("_signal"));
    if (!signals || PyErr_Occurred()) return false;
    const PyRef getsignal(PyObject_GetAttrString(signals.Get(), "getsignal"));
    g_defaultHandler = PyObject_GetAttrString(signals.Get(), "default_int_handler");
    if (!getsignal || !g_defaultHandler) return false;
    // For a function with one argument the interpreter does no more.
    if (!PyCFunction_Check(getsignal.Get()) || PyCFunction_GetFlags(getsignal.Get()) != METH_O) {
        PyErr_SetString(PyExc_ImportError, "signal.getsignal() is none of the interpreter's own");
        return false;
    }
    g_getsignal = PyCFunction_GetFunction(getsignal.Get());
    for (int signal = 1; signal < kFirstRealTime; ++signal) {
        g_numbers[signal] = PyLong_FromLong(signal);
        if (!g_numbers[signal]) return false;
    }
    g_signals = signals.Release();
    return true;
}

bool InMainThread() {
    return PyThread_get_thread_ident() == g_mainThread;
}

bool Watched::Look() {
    if (!m_isMain) return false;
    if (HasRaised()) return true;
    const auto now = std::chrono::steady_clock::now();
    // The first look is some steps behind the call's beginning, which costs no look at the clock.
    const bool isFirst = m_nextLook == std::chrono::steady_clock::time_point();
    const bool isTime = !isFirst && now >= m_nextLook;
    if (isFirst || isTime) m_nextLook = now + kTick;
    if (!isTime) return false;
    Relock(m_state);
    if (PyErr_CheckSignals() < 0) PyErr_Fetch(&m_type, &m_value, &m_trace);
    PyEval_SaveThread();
    return HasRaised();
}

void Watched::Restore() {
    if (HasRaised()) PyErr_Restore(m_type, m_value, m_trace);
}

void WaitCancellably(const std::function<void()>& work, const std::function<void()>& cancel) {
    const Handled handled = WhatIsHandled();
    if (handled == Handled::Nothing) {
        const Unlocked unlocked;
        work();
        return;
    }
    if (handled == Handled::CtrlC && CtrlCWatch::Get().Run(work, cancel)) return;
    Worker* const worker = TakeWorker();
    RaisedAside raised;
    PyThreadState* const state = PyEval_SaveThread();
    worker->Begin(work);
    while (!worker->Finished(kTick)) {
        if (HandlersRaise(state, raised)) cancel();
    }
    Relock(state);
    IdleWorkers().push_back(worker);
    raised.Throw();
}

bool WaitOrLeave(std::function<void()> work, std::chrono::seconds limit) {
    Worker* const worker = TakeWorker();
    RaisedAside raised;
    const auto begin = std::chrono::steady_clock::now();
    const auto isOver = [&] {
        return limit.count() > 0 && std::chrono::steady_clock::now() - begin >= limit;
    };
    PyThreadState* const state = PyEval_SaveThread();
    worker->Begin(std::move(work));
    bool isLeft = false;
    while (!isLeft && !worker->Finished(kTick)) {
        if (HandlersRaise(state, raised) || isOver()) isLeft = worker->Leave();
    }
    Relock(state);
    if (!isLeft) IdleWorkers().push_back(worker);
    raised.Throw();
    return !isLeft;
}
