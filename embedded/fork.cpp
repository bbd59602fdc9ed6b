#include "fork.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

namespace embedded {
namespace {

std::atomic<unsigned> forks{0};

// Threads that are not in the child may have held any lock: this counts, and does nothing else.
void countFork() noexcept {
    forks.fetch_add(1, std::memory_order_relaxed);
}

const bool counting = pthread_atfork(nullptr, nullptr, countFork) == 0;

}  // namespace

unsigned forkCount() noexcept {
    return counting ? forks.load(std::memory_order_relaxed) : static_cast<unsigned>(getpid());
}

}  // namespace embedded
