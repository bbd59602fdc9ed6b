#pragma once

#include <atomic>

namespace embedded {

namespace detail {
extern std::atomic<unsigned> forks;
/// Stands in where forks cannot be counted.
unsigned processNumber() noexcept;
extern const bool countsForks;
}  // namespace detail

/// How many forks lie between this process and the one that loaded the library: a connection that
/// was opened at another count belongs to a parent process.
inline unsigned forkCount() noexcept {
    return detail::countsForks ? detail::forks.load(std::memory_order_relaxed)
                               : detail::processNumber();
}

}  // namespace embedded
