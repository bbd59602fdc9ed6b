// Cancelling what the provider is busy with. Its calls hold the interpreter lock, so no Python code
// can do it; a thread that waits outside the lock can.
#pragma once

#include "include/sqltypes.h"
#include "util/def.h"

// The statement that a cancellation is for: the one executed last.
void NoteStatement(SQLHSTMT statement);
// Before a statement is freed; null stands for all of a connection's. Waits for a cancellation that
// is under way.
void ForgetStatement(SQLHSTMT statement);

// For a thread of a tool's own, through ctypes: reads signal numbers, as signal.set_wakeup_fd
// writes them, from a pipe that does not block. From a SIGINT on it cancels the statement again and
// again, until the interrupts are forgotten. Returns at the end of the file.
extern "C" VORDA_EXPORT void VordaCancelOnInterrupt(int file);
// For the tool's main thread: the call is over for which those were meant that are in the pipe. No
// cancellation comes any more once it has returned.
extern "C" VORDA_EXPORT void VordaForgetInterrupts(int file);
