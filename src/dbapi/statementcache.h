// Prepared statements that nobody uses at the moment, found again by their text.
#pragma once

#include <array>
#include <deque>
#include <memory>

#include "dbapi/statement.h"

// Keeps those that were used last. All under the interpreter lock.
class StatementCache {
  public:
    // The one that was prepared from this text, or null.
    std::unique_ptr<Statement> Take(PyObject* text) {
        const Py_hash_t hash = PyObject_Hash(text);
        if (Alike(hash) == 0) return nullptr;
        // From the one used last on. Looking at hashes alone reaches for no statement.
        for (auto kept = m_kept.rbegin(); kept != m_kept.rend(); ++kept) {
            if (kept->hash != hash || !kept->statement->IsFor(text)) continue;
            std::unique_ptr<Statement> found = std::move(kept->statement);
            m_kept.erase(std::next(kept).base());
            --Alike(hash);
            return found;
        }
        return nullptr;
    }

    // The one used longest ago when there are as many as may be; else null. What prepares another
    // text on its handle finds memory for rows and parameters in place.
    std::unique_ptr<Statement> TakeSurplus() {
        if (m_kept.size() < kMost) return nullptr;
        std::unique_ptr<Statement> oldest = std::move(m_kept.front().statement);
        --Alike(m_kept.front().hash);
        m_kept.pop_front();
        return oldest;
    }

    void Keep(std::unique_ptr<Statement> statement) {
        TakeSurplus();
        const Py_hash_t hash = statement->Hash();
        m_kept.push_back({hash, std::move(statement)});
        ++Alike(hash);
    }

    void Clear() {
        m_kept.clear();
        m_alike.fill(0);
    }

  private:
    static constexpr size_t kMost = 128;

    struct Kept {
        Py_hash_t hash;
        std::unique_ptr<Statement> statement;
    };
    // How many are kept whose hashes end alike: nothing has to be looked through for most new
    // texts.
    unsigned char& Alike(Py_hash_t hash) {
        return m_alike[static_cast<size_t>(hash) % m_alike.size()];
    }

    std::deque<Kept> m_kept;
    std::array<unsigned char, 1024> m_alike{};
};
