#include "odbc/idle.h"

#include <new>
#include <utility>

namespace embedded {
namespace {

constexpr size_t kMost = 32;

}  // namespace

std::shared_ptr<OdbcStatement> IdleStatements::take(std::string_view key) {
    const auto found = m_byKey.find(key);
    if (found == m_byKey.end()) return nullptr;
    const auto entry = found->second;
    m_byKey.erase(found);
    std::shared_ptr<OdbcStatement> statement = std::move(entry->statement);
    m_entries.erase(entry);
    return statement;
}

void IdleStatements::keep(std::string key, std::shared_ptr<OdbcStatement> statement) noexcept {
    if (m_byKey.contains(key)) return;
    try {
        m_entries.push_front({std::move(key), std::move(statement)});
        m_byKey.emplace(m_entries.front().key, m_entries.begin());
    } catch (const std::bad_alloc&) {
        // Keeping it is a convenience; a half-made entry must not stay.
        if (m_byKey.size() < m_entries.size()) m_entries.pop_front();
        return;
    }
    if (m_entries.size() > kMost) {
        m_byKey.erase(m_entries.back().key);
        m_entries.pop_back();
    }
}

void IdleStatements::clear() noexcept {
    m_byKey.clear();
    m_entries.clear();
}

}  // namespace embedded
