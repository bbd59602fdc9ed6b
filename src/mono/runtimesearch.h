// Where the runtime pair is looked for, and how its libraries are opened. The search of odbc.cpp
// and whoever has to explain it (python -m vorda doctor) both ask here.
#pragma once

#include "util/def.h"

enum RuntimeLibrary : int { RUNTIME_MAIN = 0, RUNTIME_COMPANION = 1 };

constexpr int kRuntimeAttempts = 3;
constexpr int kRuntimePathSize = 1024;

// Writes the path that an attempt (from 0) opens a library by: a bare name first, for the loader's
// own search, then the fixed directory, then the folder of `modulePath`.
void RuntimePath(char (&path)[kRuntimePathSize], int attempt, RuntimeLibrary library,
                 const char* modulePath);

// Opens a library with its symbols visible to the whole process. When the loader refuses, null, and
// its own words in `*reason`, which last until its next error.
void* OpenRuntimeLibrary(const char* path, const char** reason);

// For tools, through dlsym or ctypes. Texts are cut to `size` bytes with their terminator.
extern "C" {
// Writes the path of an attempt; 0 past the last attempt, else 1.
VORDA_EXPORT int VordaRuntimePath(int attempt, int library, char* text, int size);
// Opens a library for good, as the search does: 1 with the full path of what the loader took in
// `text`, or 0 with the loader's own words.
VORDA_EXPORT int VordaOpenRuntime(const char* path, char* text, int size);
// The name of a function that is looked up in the runtime; null past the last one.
VORDA_EXPORT const char* VordaRuntimeFunction(int index);
}
