#include "core/fork.h"

#include <pthread.h>
#include <unistd.h>

namespace embedded::detail {
namespace {

// Threads that are not in the child may have held any lock: this counts, and does nothing else.
void countFork() noexcept {
    forks.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

constinit std::atomic<unsigned> forks{0};
const bool countsForks = pthread_atfork(nullptr, nullptr, countFork) == 0;

unsigned processNumber() noexcept {
    return static_cast<unsigned>(getpid());
}

}  // namespace embedded::detail
