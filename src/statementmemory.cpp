#include "statementmemory.h"

#include <cstring>
#include <new>
#include <utility>

#include "dbutil.h"

namespace {

// Longer statements are seldom repeated, and each connection would keep two copies of its last one.
constexpr size_t kLongestKept = 16384;

void Check(int status) {
    if (status != VORDA_OK) throw std::bad_alloc();
}

}  // namespace

const StatementMemory::Normalized& StatementMemory::Normalize(const char* text, Normalized& made) {
    // In one pass, where operator== measures the text first.
    if (!m_text.empty() && std::strcmp(m_text.c_str(), text) == 0) return m_normalized;
    Check(NormalizeSQL(text, made.Text, &made.Verb, &made.ParamCount));
    const size_t length = std::strlen(text);
    if (length > kLongestKept) return made;
    m_text.clear();
    Check(m_normalized.Text.Set(made.Text.Deref(), made.Text.Length()));
    m_normalized.Verb = made.Verb;
    m_normalized.ParamCount = made.ParamCount;
    m_text.assign(text, length);
    return made;
}

std::unique_ptr<IntDbResultSet> StatementMemory::TakeResultSet() {
    auto taken = m_spare ? std::move(m_spare) : std::make_unique<IntDbResultSet>();
    taken->Init();
    return taken;
}

void StatementMemory::Keep(std::unique_ptr<IntDbResultSet> closed) {
    if (!closed) return;
    closed->Close();
    m_spare = std::move(closed);
}
