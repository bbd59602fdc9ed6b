#include "mono/cancel.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <mutex>

namespace {

// A cancellation falls flat where the provider is between two statements of one call. So it is
// repeated until the call has ended.
constexpr int RepeatMilliseconds = 20;

std::mutex g_mutex;
SQLHSTMT g_statement = nullptr;
bool g_isWanted = false;

// Takes what has been written so far. False at the end of the file.
bool ReadSignals(int file) {
    unsigned char number = 0;
    ssize_t count = 0;
    while ((count = read(file, &number, 1)) > 0) g_isWanted = g_isWanted || number == SIGINT;
    return count != 0;
}

}  // namespace

void NoteStatement(SQLHSTMT statement) {
    const std::lock_guard lock(g_mutex);
    g_statement = statement;
}

void ForgetStatement(SQLHSTMT statement) {
    const std::lock_guard lock(g_mutex);
    if (statement == nullptr || statement == g_statement) g_statement = nullptr;
}

void VordaCancelOnInterrupt(int file) {
    bool isWanted = false;
    for (;;) {
        pollfd waiting = {file, POLLIN, 0};
        poll(&waiting, 1, isWanted ? RepeatMilliseconds : -1);
        const std::lock_guard lock(g_mutex);
        if (!ReadSignals(file)) return;
        isWanted = g_isWanted;
        if (isWanted && g_statement != nullptr) SQLCancel(g_statement);
    }
}

void VordaForgetInterrupts(int file) {
    const std::lock_guard lock(g_mutex);
    ReadSignals(file);
    g_isWanted = false;
}
