// Path and string helpers for finding the runtime, and three look-ups that let other tools query a
// library. Used by mono/odbc.cpp; exported for use outside the module.
#pragma once

#include <cstddef>

#include "util/def.h"

// Copies at most `count` bytes of `src` up to its NUL, never beyond `destsz` bytes including the
// terminator. Returns 1 when `count` does not fit, else 0. A destination of size 0 is left alone.
VORDA_EXPORT int strncpy_s(char* dest, std::size_t destsz, const char* src, std::size_t count);

// Writes the path of the shared object that this code lives in. `hInstance` plays no part. Always
// 0; the buffer keeps its content when the path is not known.
VORDA_EXPORT int GetCurrentPath(void* hInstance, char* lpszBuffer, int cbBufferLen);

// Replaces the file name at the end of the path, in place; a null name cuts the path at its last
// slash. Returns -1 for a null path or a negative length, else 0.
VORDA_EXPORT int ReplaceFileName(char* lpszFilePath, const char* lpszNewFile, int dwBufferLen);

// Inserts a text at `iIndex` into a buffer of `maxLen` bytes; what no longer fits falls off at the
// end. A text that lies in the buffer is read after the tail has made room. Always 0.
VORDA_EXPORT int StringInsert(char* lpDest, int maxLen, int iIndex, const char* lpContains);

// The library that the ODBC installer has on record for a driver. Returns the number of characters
// written, 0 or less when it is not found.
VORDA_EXPORT int GetDriverLib(const char* lpszDriverName, char* lpszFilePath, int cbFilePath);

// Copies the core name of another library into `lpBuffer`, or leaves it empty. Always 0.
VORDA_EXPORT int GetCoreName(const char* lpszDriverPath, char* lpBuffer, int cbBufferLen);

// This module's own core name, for the same look-up by others.
extern "C" VORDA_EXPORT const char* GetCoreName();

// The version that a runtime library reports, -1 when it cannot be asked.
VORDA_EXPORT int GetRuntimeVersion(char* lpszRTPath);
