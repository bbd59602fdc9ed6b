#pragma once

#include <sql.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "diagnostics.h"

namespace embedded {

/// What every environment, connection and statement has.
class Handle {
  public:
    explicit Handle(SQLSMALLINT type) noexcept : m_type(type) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    SQLSMALLINT type() const noexcept { return m_type; }

    /// The number the application knows this object by; 0 until it is registered.
    SQLHANDLE id() const noexcept { return reinterpret_cast<SQLHANDLE>(m_id); }

    Diagnostics diagnostics;

    /// Set, under the object's lock, when the application frees the handle: a call that was waiting
    /// for the lock then finds no handle.
    bool dropped = false;

  private:
    friend class HandleRegistry;
    const SQLSMALLINT m_type;
    std::uintptr_t m_id = 0;
};

/// All living handles of the process.
///
/// An application never holds a pointer but a number that is not given twice, so that null, freed
/// and foreign handles are recognised instead of followed. Lookups answer a shared pointer: a
/// handle freed by another thread stays valid memory until the call that is using it ends.
class HandleRegistry {
  public:
    static HandleRegistry& instance();

    /// Registers `handle` and gives it its number.
    SQLHANDLE add(std::shared_ptr<Handle> handle);

    /// Forgets the handle; answers false when it was gone already.
    bool remove(SQLHANDLE id) noexcept;

    /// The living object of class `T` behind `id`, or null.
    template <class T>
    std::shared_ptr<T> find(SQLHANDLE id) {
        const std::lock_guard lock(m_mutex);
        const auto found = m_handles.find(reinterpret_cast<std::uintptr_t>(id));
        if (found == m_handles.end() || found->second->type() != T::kHandleType) return nullptr;
        return std::static_pointer_cast<T>(found->second);
    }

    /// All living objects of class `T`.
    template <class T>
    std::vector<std::shared_ptr<T>> all() {
        const std::lock_guard lock(m_mutex);
        std::vector<std::shared_ptr<T>> found;
        for (const auto& [id, handle] : m_handles) {
            if (handle->type() == T::kHandleType)
                found.push_back(std::static_pointer_cast<T>(handle));
        }
        return found;
    }

    /// Number of living handles.
    size_t count();

  private:
    std::mutex m_mutex;
    std::unordered_map<std::uintptr_t, std::shared_ptr<Handle>> m_handles;
    // Small numbers stay free so that a stray small integer is no handle.
    std::uintptr_t m_next = 0x10000;
};

}  // namespace embedded
