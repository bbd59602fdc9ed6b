#include "handle.h"

#include <new>

namespace embedded {

namespace {

/// Never destroyed: an application may free its handles from its own exit handlers. Not on the heap
/// either, so that nothing is left behind when the library is unloaded.
union Immortal {
    Immortal() { new (&registry) HandleRegistry; }
    ~Immortal() {}
    HandleRegistry registry;
};

}  // namespace

HandleRegistry& HandleRegistry::instance() {
    static Immortal immortal;
    return immortal.registry;
}

SQLHANDLE HandleRegistry::add(std::shared_ptr<Handle> handle) {
    const std::lock_guard lock(m_mutex);
    const std::uintptr_t id = m_next;
    Handle& object = *handle;
    m_handles.emplace(id, std::move(handle));
    m_next += sizeof(void*);
    object.m_id = id;
    return object.id();
}

bool HandleRegistry::remove(SQLHANDLE id) noexcept {
    std::shared_ptr<Handle> last;  // destroyed after the lock is released
    const std::lock_guard lock(m_mutex);
    const auto found = m_handles.find(reinterpret_cast<std::uintptr_t>(id));
    if (found == m_handles.end()) return false;
    last = std::move(found->second);
    m_handles.erase(found);
    if (m_handles.empty()) m_handles = decltype(m_handles)();  // gives its table back, too
    return true;
}

size_t HandleRegistry::count() {
    const std::lock_guard lock(m_mutex);
    return m_handles.size();
}

}  // namespace embedded
