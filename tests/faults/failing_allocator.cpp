// An allocator that fails on demand, to be preloaded: every request of the process goes through it
// and on to the allocator behind it, which is the sanitizer's where one is preloaded too. A test
// arms it through ctypes around one operation. Only that thread's requests count, and only while
// armed. The sanitizers stay out of this library: it runs before they are ready.
#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct Plan {
    long first = 0;  // number of the first request to fail; 0 while not armed
    long last = 0;
    long seen = 0;
    bool paused = false;
};
// Of the initial-exec kind, whose first use asks for no memory.
__attribute__((tls_model("initial-exec"))) thread_local Plan g_plan;

bool Fails() {
    Plan& plan = g_plan;
    if (plan.first == 0 || plan.paused) return false;
    const long number = ++plan.seen;
    return number >= plan.first && number <= plan.last;
}

std::atomic<long> g_live;

void* Counted(void* block) {
    if (block) g_live.fetch_add(1, std::memory_order_relaxed);
    return block;
}

// The next library's function of this name.
template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void* NoMemory() {
    errno = ENOMEM;
    return nullptr;
}

void* OrThrow(void* block) {
    if (!block) throw std::bad_alloc();
    return block;
}

}  // namespace

// From now on the requests `first` to `last`, counted from 1, fail.
EXPORT void failing_allocator_arm(long first, long last) {
    g_plan = {first, last, 0, false};
}

// Ends it; the number of requests that were made.
EXPORT long failing_allocator_disarm() {
    const long seen = g_plan.seen;
    g_plan = {};
    return seen;
}

// Puts it aside while a test's own code runs within the operation, and takes it up again.
EXPORT void failing_allocator_pause(int pause) {
    g_plan.paused = pause != 0;
}

// Blocks that were asked for and not given back.
EXPORT long failing_allocator_live() {
    return g_live.load(std::memory_order_relaxed);
}

EXPORT void* malloc(std::size_t size) {
    static auto* const next = Next<void*(std::size_t)>("malloc");
    return Fails() ? NoMemory() : Counted(next(size));
}

EXPORT void* calloc(std::size_t count, std::size_t size) {
    static auto* const next = Next<void*(std::size_t, std::size_t)>("calloc");
    return Fails() ? NoMemory() : Counted(next(count, size));
}

EXPORT void* realloc(void* block, std::size_t size) {
    static auto* const next = Next<void*(void*, std::size_t)>("realloc");
    if (Fails()) return NoMemory();
    void* const moved = next(block, size);
    return block ? moved : Counted(moved);
}

EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size) {
    static auto* const next = Next<void*(std::size_t, std::size_t)>("aligned_alloc");
    return Fails() ? NoMemory() : Counted(next(alignment, size));
}

EXPORT int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    static auto* const next = Next<int(void**, std::size_t, std::size_t)>("posix_memalign");
    if (Fails()) return ENOMEM;
    const int status = next(block, alignment, size);
    if (status == 0) Counted(*block);
    return status;
}

EXPORT void free(void* block) {
    static auto* const next = Next<void(void*)>("free");
    if (block) g_live.fetch_sub(1, std::memory_order_relaxed);
    next(block);
}

// The standard library's end in malloc above, but not a sanitizer's.
__attribute__((visibility("default"))) void* operator new(std::size_t size) {
    return OrThrow(malloc(size ? size : 1));
}
__attribute__((visibility("default"))) void* operator new[](std::size_t size) {
    return OrThrow(malloc(size ? size : 1));
}
__attribute__((visibility("default"))) void* operator new(std::size_t size,
                                                          const std::nothrow_t&) noexcept {
    return malloc(size ? size : 1);
}
