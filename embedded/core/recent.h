#pragma once

#include <list>
#include <new>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace embedded {

/// Things kept by a text in case they are asked for again; the least recently used go first.
/// `keyOf` answers an item's text, which stays where it is while the item is kept.
template <class Item, auto keyOf>
class RecentlyUsed {
  public:
    explicit RecentlyUsed(size_t most) noexcept : m_most(most) {}

    /// Takes the item of this text out.
    std::optional<Item> take(std::string_view key) {
        const auto found = m_byKey.find(key);
        if (found == m_byKey.end()) return std::nullopt;
        const auto place = found->second;
        m_byKey.erase(found);
        std::optional<Item> item(std::move(*place));
        m_items.erase(place);
        return item;
    }

    /// Keeps `item` unless there is one of the same text, or no memory: keeping is a convenience.
    void keep(Item item) noexcept {
        if (m_byKey.contains(keyOf(item))) return;
        try {
            m_items.push_front(std::move(item));
            m_byKey.emplace(keyOf(m_items.front()), m_items.begin());
        } catch (const std::bad_alloc&) {
            // A half-made entry must not stay.
            if (m_byKey.size() < m_items.size()) m_items.pop_front();
            return;
        }
        if (m_items.size() > m_most) {
            m_byKey.erase(keyOf(m_items.back()));
            m_items.pop_back();
        }
    }

    void clear() noexcept {
        m_byKey.clear();
        m_items.clear();
    }

  private:
    const size_t m_most;
    std::list<Item> m_items;  ///< most recently used first
    std::unordered_map<std::string_view, typename std::list<Item>::iterator> m_byKey;
};

}  // namespace embedded
