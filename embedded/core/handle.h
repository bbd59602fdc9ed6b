#pragma once

#include <sql.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "core/diagnostics.h"
#include "core/lock.h"

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
    static HandleRegistry& instance() noexcept;

    constexpr HandleRegistry() noexcept = default;

    /// Registers `handle` and gives it its number.
    SQLHANDLE add(std::shared_ptr<Handle> handle);

    /// Forgets the handle; answers false when it was gone already.
    bool remove(SQLHANDLE id) noexcept;

    /// The living object of class `T` behind `id`, or null.
    template <class T>
    std::shared_ptr<T> find(SQLHANDLE id) {
        const Lock lock(m_mutex);
        const Slot* const slot = slotOf(id);
        if (!slot || slot->handle->type() != T::kHandleType) return nullptr;
        return std::static_pointer_cast<T>(slot->handle);
    }

    /// All living objects of class `T`.
    template <class T>
    std::vector<std::shared_ptr<T>> all() {
        const Lock lock(m_mutex);
        std::vector<std::shared_ptr<T>> found;
        for (const Slot& slot : m_slots) {
            if (slot.handle && slot.handle->type() == T::kHandleType)
                found.push_back(std::static_pointer_cast<T>(slot.handle));
        }
        return found;
    }

    /// Number of living handles.
    size_t count();

  private:
    /// A place of the table. Its number has the place in its lower half and, in its upper half, how
    /// often the place was given away: what is left of an earlier use does not fit any more.
    struct Slot {
        std::uint32_t use;
        std::uint32_t nextFree;
        std::shared_ptr<Handle> handle;  ///< null: free, or used up
    };

    static constexpr std::uint32_t kNone = 0xFFFF'FFFF;

    /// The place that a living handle has, or null.
    Slot* slotOf(SQLHANDLE id) noexcept {
        static_assert(sizeof(std::uintptr_t) == 2 * sizeof(std::uint32_t));
        const auto number = reinterpret_cast<std::uintptr_t>(id);
        const auto place = static_cast<std::uint32_t>(number);
        if (place >= m_slots.size()) return nullptr;
        Slot& slot = m_slots[place];
        return slot.handle && slot.use == number >> 32 ? &slot : nullptr;
    }
    std::uint32_t freePlace();
    void giveTableBack() noexcept;

    std::mutex m_mutex;
    std::vector<Slot> m_slots;
    std::uint32_t m_firstFree = kNone;
    size_t m_living = 0;
    // The use that a new place begins with. Never 0, so that a stray small integer is no handle.
    std::uint32_t m_firstUse = 1;
};

}  // namespace embedded
