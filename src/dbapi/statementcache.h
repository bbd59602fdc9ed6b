// Prepared statements that nobody uses at the moment, found again by their text.
#pragma once

#include <memory>
#include <vector>

#include "dbapi/statement.h"

// Keeps those that were used last. All under the interpreter lock.
class StatementCache {
  public:
    // The one that was prepared from this text, or null.
    std::unique_ptr<Statement> Take(PyObject* text) {
        const Py_hash_t hash = PyObject_Hash(text);
        // From the one used last on. Looking at hashes alone reaches for no statement.
        for (auto kept = m_kept.rbegin(); kept != m_kept.rend(); ++kept) {
            if (kept->hash != hash || !kept->statement->IsFor(text)) continue;
            std::unique_ptr<Statement> found = std::move(kept->statement);
            m_kept.erase(std::next(kept).base());
            return found;
        }
        return nullptr;
    }

    void Keep(std::unique_ptr<Statement> statement) {
        if (m_kept.size() == kMost) m_kept.erase(m_kept.begin());
        m_kept.push_back({statement->Hash(), std::move(statement)});
    }

    void Clear() { m_kept.clear(); }

  private:
    static constexpr size_t kMost = 128;

    struct Kept {
        Py_hash_t hash;
        std::unique_ptr<Statement> statement;
    };
    std::vector<Kept> m_kept;
};
