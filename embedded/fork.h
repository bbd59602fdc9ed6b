#pragma once

#include <sqlite3.h>

namespace embedded {

/// How many forks lie between this process and the one that loaded the library: a connection that
/// was opened at another count belongs to a parent process.
unsigned forkCount() noexcept;

/// Makes SQLite forget the locks of `db`, which was opened before a fork. They stayed with the
/// parent, but SQLite's notes about them are copied to the child: they would make it read a file
/// that it opens anew without a lock. Touches no file. Throws an `Error`.
void forgetLocks(sqlite3* db);

}  // namespace embedded
