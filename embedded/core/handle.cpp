#include "core/handle.h"

#include <algorithm>
#include <new>
#include <utility>

namespace embedded {

namespace {

/// Never destroyed: an application may free its handles from its own exit handlers. Not on the heap
/// either, so that nothing is left behind when the library is unloaded.
union Immortal {
    constexpr Immortal() noexcept : registry() {}
    ~Immortal() {}
    HandleRegistry registry;
};

constinit Immortal immortal;

}  // namespace

HandleRegistry& HandleRegistry::instance() noexcept {
    return immortal.registry;
}

std::uint32_t HandleRegistry::freePlace() {
    if (m_firstFree == kNone) {
        // Applications leave statements behind, but never so many.
        if (m_slots.size() >= kNone) throw std::bad_alloc();
        m_slots.push_back({m_firstUse, kNone, nullptr});
        return static_cast<std::uint32_t>(m_slots.size() - 1);
    }
    return std::exchange(m_firstFree, m_slots[m_firstFree].nextFree);
}

SQLHANDLE HandleRegistry::add(std::shared_ptr<Handle> handle) {
    const Lock lock(m_mutex);
    const std::uint32_t place = freePlace();
    Slot& slot = m_slots[place];
    handle->m_id = std::uintptr_t{slot.use} << 32 | place;
    slot.handle = std::move(handle);
    ++m_living;
    return slot.handle->id();
}

bool HandleRegistry::remove(SQLHANDLE id) noexcept {
    std::shared_ptr<Handle> last;  // destroyed after the lock is released
    const Lock lock(m_mutex);
    Slot* const slot = slotOf(id);
    if (!slot) return false;
    last = std::move(slot->handle);
    // A place whose numbers are used up stays empty for ever.
    if (slot->use < kNone) {
        ++slot->use;
        slot->nextFree =
            std::exchange(m_firstFree, static_cast<std::uint32_t>(slot - m_slots.data()));
    }
    if (--m_living == 0) giveTableBack();
    return true;
}

// The places of the next table go on from the highest use of this one's.
void HandleRegistry::giveTableBack() noexcept {
    const auto highest = std::max_element(
        m_slots.begin(), m_slots.end(), [](const Slot& a, const Slot& b) { return a.use < b.use; });
    if (highest->use == kNone) return;
    m_firstUse = highest->use + 1;
    m_slots = decltype(m_slots)();
    m_firstFree = kNone;
}

size_t HandleRegistry::count() {
    const Lock lock(m_mutex);
    return m_living;
}

}  // namespace embedded
