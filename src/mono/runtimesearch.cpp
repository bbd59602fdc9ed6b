#include "mono/runtimesearch.h"

#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <iterator>

#include "runtime/lib.h"

namespace {

constexpr const char* kNames[] = {"libvordart.x64.so.6", "libvordart-compat.x64.so.6"};
constexpr char kRuntimeFolder[] = "/opt/vorda/rt/lib";

constexpr const char* kFunctions[] = {
#define ODBC_CALL(name, parameters, arguments) "RT_SQL" #name,
#include "mono/odbc_functions.def"
};

}  // namespace

void RuntimePath(char (&path)[kRuntimePathSize], int attempt, RuntimeLibrary library,
                 const char* modulePath) {
    const char* const name = kNames[library];
    switch (attempt) {
        case 0:
            strncpy_s(path, sizeof path, name, sizeof path);
            return;
        case 1:
            std::snprintf(path, sizeof path, "%s/%s", kRuntimeFolder, name);
            return;
        default:
            strncpy_s(path, sizeof path, modulePath, sizeof path);
            ReplaceFileName(path, name, sizeof path);
    }
}

void* OpenRuntimeLibrary(const char* path, const char** reason) {
    void* const library = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    // Asked for in any case: a failed attempt leaves no error behind for others to find.
    if (library == nullptr) *reason = dlerror();
    return library;
}

int VordaRuntimePath(int attempt, int library, char* text, int size) {
    if (attempt < 0 || attempt >= kRuntimeAttempts || size < 1) return 0;
    char modulePath[kRuntimePathSize] = {};
    char path[kRuntimePathSize];
    GetCurrentPath(nullptr, modulePath, kRuntimePathSize);
    RuntimePath(path, attempt, library == RUNTIME_MAIN ? RUNTIME_MAIN : RUNTIME_COMPANION,
                modulePath);
    std::snprintf(text, static_cast<std::size_t>(size), "%s", path);
    return 1;
}

int VordaOpenRuntime(const char* path, char* text, int size) {
    const char* words = nullptr;
    void* const library = OpenRuntimeLibrary(path, &words);
    link_map* map = nullptr;
    if (library != nullptr) {
        words = dlinfo(library, RTLD_DI_LINKMAP, &map) == 0 ? map->l_name : path;
    }
    if (size > 0) {
        std::snprintf(text, static_cast<std::size_t>(size), "%s", words != nullptr ? words : "");
    }
    return library != nullptr ? 1 : 0;
}

const char* VordaRuntimeFunction(int index) {
    const bool known = index >= 0 && index < static_cast<int>(std::size(kFunctions));
    return known ? kFunctions[index] : nullptr;
}
