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
PyObject* g_getsignal = nullptr;
PyObject* g_defaultHandler = nullptr;  // of Ctrl-C

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

// Whether no signal runs a function in Python but Ctrl-C, and that the one which raises
// KeyboardInterrupt. Functions of real-time signals are not looked for: they run after the call.
bool OnlyCtrlCIsHandled() {
    struct sigaction installed {};
    sigaction(SIGINT, nullptr, &installed);
    // Another library's, in front of Python's.
    if ((static_cast<unsigned>(installed.sa_flags) & SA_SIGINFO) != 0) return false;
    constexpr int kFirstRealTime = 32;
    for (int number = 1; number < kFirstRealTime; ++number) {
        const PyRef boxed = Checked(PyLong_FromLong(number));
        const PyRef handler =
            Checked(PyObject_CallFunctionObjArgs(g_getsignal, boxed.Get(), nullptr));
        const bool isDefault = number == SIGINT && handler.Get() == g_defaultHandler;
        if (!isDefault && PyCallable_Check(handler.Get())) return false;
    }
    return true;
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

    void Run(const std::function<void()>& work, const std::function<void()>& cancel) {
        struct sigaction python {};
        sigaction(SIGINT, nullptr, &python);
        struct sigaction ours = python;
        ours.sa_handler = OnCtrlC;
        // In a child that was forked in the middle of a call it is there already.
        if (python.sa_handler != OnCtrlC) s_next = python.sa_handler;
        const bool isHandled = s_next != SIG_DFL && s_next != SIG_IGN;
        SetCancel(&cancel);
        s_watch = this;
        if (isHandled) sigaction(SIGINT, &ours, nullptr);
        // Nobody has seen what came just before.
        const bool isLate = PyErr_CheckSignals() < 0;
        bool wasCancelled = false;
        {
            const Unlocked unlocked;
            if (!isLate) work();
            if (isHandled) sigaction(SIGINT, &python, nullptr);
            wasCancelled = SetCancel(nullptr);
        }
        if (isLate || (wasCancelled && PyErr_CheckSignals() < 0)) throw PythonError();
    }

  private:
    CtrlCWatch() : m_forks(ForkCount()) {
        sem_init(&m_wake, 0, 0);
        std::thread([this] { Serve(); }).detach();
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
    const PyRef signals(PyImport_ImportModule("_signal"));
    if (!signals || PyErr_Occurred()) return false;
    g_getsignal = PyObject_GetAttrString(signals.Get(), "getsignal");
    g_defaultHandler = PyObject_GetAttrString(signals.Get(), "default_int_handler");
    return g_getsignal && g_defaultHandler;
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
    if (OnlyCtrlCIsHandled()) return CtrlCWatch::Get().Run(work, cancel);
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
