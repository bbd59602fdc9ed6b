#pragma once

namespace embedded {

/// How many forks lie between this process and the one that loaded the library: a connection that
/// was opened at another count belongs to a parent process.
unsigned forkCount() noexcept;

}  // namespace embedded
