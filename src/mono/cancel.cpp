#include "mono/cancel.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>

namespace {

std::mutex g_mutex;
SQLHSTMT g_statement = nullptr;

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
    for (;;) {
        unsigned char number = 0;
        const ssize_t count = read(file, &number, 1);
        if (count == 0 || (count < 0 && errno != EINTR)) return;
        const std::lock_guard lock(g_mutex);
        if (count > 0 && number == SIGINT && g_statement != nullptr) SQLCancel(g_statement);
    }
}
