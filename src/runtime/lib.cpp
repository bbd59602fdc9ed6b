#include "runtime/lib.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr int kGlobalLoad = RTLD_NOW | RTLD_GLOBAL;

struct LibraryCloser {
    void operator()(void* handle) const { dlclose(handle); }
};
using Library = std::unique_ptr<void, LibraryCloser>;

template <typename Function>
Function* Symbol(void* library, const char* name) {
    return reinterpret_cast<Function*>(dlsym(library, name));
}

// Copies into a buffer whose size arrived as an int, as much as fits.
void CopyAll(char* buffer, int size, const char* text) {
    if (size < 1) return;
    const auto room = static_cast<std::size_t>(size);
    strncpy_s(buffer, room, text, room);
}

// Local to this object on purpose: the address of an exported function could belong to another
// library that exports the same name.
const char g_anchor = 0;

// A null `pDriverManager` searches the whole process, which finds an installer already loaded.
int _SQLGetPrivateProfileString(void* pDriverManager, const char* lpszSection,
                                const char* lpszEntry, const char* lpszDefault, char* lpszRetBuffer,
                                int cbRetBuffer, const char* fileName) {
    auto* const lookUp =
        Symbol<int(const char*, const char*, const char*, char*, int, const char*)>(
            pDriverManager, "SQLGetPrivateProfileString");
    if (!lookUp) return 0;
    return lookUp(lpszSection, lpszEntry, lpszDefault, lpszRetBuffer, cbRetBuffer, fileName);
}

}  // namespace

int strncpy_s(char* dest, std::size_t destsz, const char* src, std::size_t count) {
    if (!dest || destsz == 0) return count > 0 ? 1 : 0;
    const std::size_t n = std::min(destsz - 1, count);
    std::strncpy(dest, src ? src : "", n);
    dest[n] = '\0';
    return count > n ? 1 : 0;
}

int GetCurrentPath(void*, char* lpszBuffer, int cbBufferLen) {
    Dl_info info{};
    if (dladdr(&g_anchor, &info) != 0 && info.dli_fname) {
        CopyAll(lpszBuffer, cbBufferLen, info.dli_fname);
    }
    return 0;
}

int ReplaceFileName(char* lpszFilePath, const char* lpszNewFile, int dwBufferLen) {
    if (!lpszFilePath || dwBufferLen < 0) return -1;
    int insertAt = 0;
    for (int i = 0; i < dwBufferLen && lpszFilePath[i] != '\0'; ++i) {
        if (lpszFilePath[i] == '/') insertAt = i;
    }
    // A slash in first place is overwritten like a path without one.
    if (insertAt != 0 && lpszNewFile) ++insertAt;
    CopyAll(lpszFilePath + insertAt, dwBufferLen - insertAt, lpszNewFile);
    return 0;
}

int StringInsert(char* lpDest, int maxLen, int iIndex, const char* lpContains) {
    if (!lpDest || !lpContains || maxLen <= 0 || iIndex < 0 || iIndex >= maxLen) return 0;
    const auto size = static_cast<std::size_t>(maxLen);
    const auto at = static_cast<std::size_t>(iIndex);
    const std::size_t n = std::min(strnlen(lpContains, size), size - at - 1);
    std::memmove(lpDest + at + n, lpDest + at, size - at - n);
    // The content may lie in the buffer itself.
    std::memmove(lpDest + at, lpContains, n);
    lpDest[size - 1] = '\0';
    return 0;
}

int GetDriverLib(const char* lpszDriverName, char* lpszFilePath, int cbFilePath) {
    if (!lpszFilePath || cbFilePath < 1) return 0;
    const Library iodbc(dlopen("libiodbcinst.so", RTLD_NOW));
    const Library unixodbc(dlopen("libodbcinst.so", RTLD_NOW));
    const auto ask = [&](const Library& installer) {
        return _SQLGetPrivateProfileString(installer.get(), lpszDriverName, "Driver", "",
                                           lpszFilePath, cbFilePath, "ODBCINST.INI");
    };
    const int length = ask(unixodbc);
    return length < 1 ? ask(iodbc) : length;
}

int GetCoreName(const char* lpszDriverPath, char* lpBuffer, int cbBufferLen) {
    if (lpBuffer && cbBufferLen >= 1) lpBuffer[0] = '\0';
    // To the loader a null path would mean the program itself.
    if (!lpszDriverPath) return 0;
    const Library library(dlopen(lpszDriverPath, kGlobalLoad));
    if (!library) return 0;
    if (auto* const coreName = Symbol<const char*()>(library.get(), "GetCoreName")) {
        CopyAll(lpBuffer, cbBufferLen, coreName());
    }
    return 0;
}

const char* GetCoreName() {
    return "Vorda.PyCore.Zelqa";
}

int GetRuntimeVersion(char* lpszRTPath) {
    if (!lpszRTPath) return -1;
    const Library library(dlopen(lpszRTPath, kGlobalLoad));
    if (!library) return -1;
    auto* const version = Symbol<int()>(library.get(), "RT_Version");
    return version ? version() : -1;
}
