// Prepared statements that nobody uses at the moment, found again by their text.
#pragma once

#include <list>
#include <memory>

#include "dbapi/statement.h"

// Keeps those that were used last. All under the interpreter lock.
class StatementCache {
  public:
    // The one that was prepared from this text, or null.
    std::unique_ptr<Statement> Take(PyObject* text) {
        const Py_hash_t hash = PyObject_Hash(text);
        for (auto kept = m_kept.begin(); kept != m_kept.end(); ++kept) {
            if (!(*kept)->IsFor(text, hash)) continue;
            std::unique_ptr<Statement> found = std::move(*kept);
            m_kept.erase(kept);
            return found;
        }
        return nullptr;
    }

    void Keep(std::unique_ptr<Statement> statement) {
        m_kept.push_front(std::move(statement));
        if (m_kept.size() > kMost) m_kept.pop_back();
    }

    void Clear() { m_kept.clear(); }

  private:
    static constexpr size_t kMost = 128;

    std::list<std::unique_ptr<Statement>> m_kept;
};
