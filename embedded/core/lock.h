#pragma once

#include <mutex>

#include "core/fork.h"

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define VORDA_HAS_SINGLE_THREADED
#endif

namespace embedded {

/// Whether this is the only thread of its process.
inline bool isOnlyThread() noexcept {
#ifdef VORDA_HAS_SINGLE_THREADED
    return __libc_single_threaded && forkCount() == 0;
#else
    return false;
#endif
}

/// Holds a mutex as long as it lives. The only thread of a process is spared the work: nobody is
/// there to hold the mutex, and nobody can come before it is released, since only this thread could
/// start another one. In a forked process it is not, since a thread of the parent may have held the
/// mutex in the middle of its work.
class Lock {
  public:
    explicit Lock(std::mutex& mutex) : m_mutex(isOnlyThread() ? nullptr : &mutex) {
        if (m_mutex) m_mutex->lock();
    }
    ~Lock() {
        if (m_mutex) m_mutex->unlock();
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    std::mutex* const m_mutex;
};

}  // namespace embedded
