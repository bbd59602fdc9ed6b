// Prepared statements that nobody uses at the moment, found again by their text.
#pragma once

#include <array>
#include <deque>
#include <memory>
#include <utility>

#include "dbapi/statement.h"

// Keeps those that were used last, and of those whose text came once the last one only: texts with
// their values written into them would take the places, and the processor's memory, of others. All
// under the interpreter lock.
class StatementCache {
  public:
    // The one that was prepared from this text, or null.
    std::unique_ptr<Statement> Take(PyObject* text) {
        if (m_once && m_once->IsFor(text)) {
            m_once->ComesAgain();
            return std::move(m_once);
        }
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

    // Whether a text came before, which it has now, as far as that is remembered.
    bool IsNoted(Py_hash_t hash) {
        Py_hash_t& noted = m_noted[static_cast<size_t>(hash) % m_noted.size()];
        return std::exchange(noted, hash) == hash;
    }

    // One whose text came once, or the one used longest ago when there are as many as may be; else
    // null. What prepares another text on its handle finds memory for rows and parameters in place.
    std::unique_ptr<Statement> TakeSurplus() {
        return m_once || m_kept.size() < kMost ? std::move(m_once) : TakeOldest();
    }

    void Keep(std::unique_ptr<Statement> statement) {
        if (!statement->CameBefore()) {
            m_once = std::move(statement);
            return;
        }
        if (m_kept.size() >= kMost) TakeOldest();
        const Py_hash_t hash = statement->Hash();
        m_kept.push_back({hash, std::move(statement)});
        ++Alike(hash);
    }

    void Clear() {
        m_once.reset();
        m_kept.clear();
        m_alike.fill(0);
    }

  private:
    static constexpr size_t kMost = 128;

    struct Kept {
        Py_hash_t hash;
        std::unique_ptr<Statement> statement;
    };

    std::unique_ptr<Statement> TakeOldest() {
        std::unique_ptr<Statement> oldest = std::move(m_kept.front().statement);
        --Alike(m_kept.front().hash);
        m_kept.pop_front();
        return oldest;
    }
    // How many are kept whose hashes end alike: nothing has to be looked through for most new
    // texts.
    unsigned char& Alike(Py_hash_t hash) {
        return m_alike[static_cast<size_t>(hash) % m_alike.size()];
    }

    std::unique_ptr<Statement> m_once;
    std::array<Py_hash_t, 256> m_noted{};
    std::deque<Kept> m_kept;
    std::array<unsigned char, 1024> m_alike{};
};
