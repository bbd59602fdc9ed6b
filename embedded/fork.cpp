#include "fork.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include "sqliteerror.h"

namespace embedded {
namespace {

std::atomic<unsigned> forks{0};

// Threads that are not in the child may have held any lock: this counts, and does nothing else.
void countFork() noexcept {
    forks.fetch_add(1, std::memory_order_relaxed);
}

const bool counting = pthread_atfork(nullptr, nullptr, countFork) == 0;

/// For one row of PRAGMA database_list: number, name, file.
int forgetLocksOf(void* db, int, char** row, char**) noexcept {
    sqlite3_file* file = nullptr;
    sqlite3_file_control(static_cast<sqlite3*>(db), row[1], SQLITE_FCNTL_FILE_POINTER, &file);
    if (!file || !file->pMethods) return SQLITE_OK;
    if (file->pMethods->iVersion >= 2) file->pMethods->xShmUnmap(file, 0);
    file->pMethods->xUnlock(file, SQLITE_LOCK_NONE);
    return SQLITE_OK;
}

}  // namespace

unsigned forkCount() noexcept {
    return counting ? forks.load(std::memory_order_relaxed) : static_cast<unsigned>(getpid());
}

void forgetLocks(sqlite3* db) {
    if (sqlite3_exec(db, "PRAGMA database_list", forgetLocksOf, db, nullptr) != SQLITE_OK) {
        throw sqliteError(db);
    }
}

}  // namespace embedded
