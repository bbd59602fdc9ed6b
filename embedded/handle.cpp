#include "handle.h"

namespace embedded {

HandleRegistry& HandleRegistry::instance() {
    // Never destroyed: an application may free its handles from its own exit handlers.
    static HandleRegistry& registry = *new HandleRegistry;
    return registry;
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
    return true;
}

size_t HandleRegistry::count() {
    const std::lock_guard lock(m_mutex);
    return m_handles.size();
}

}  // namespace embedded
