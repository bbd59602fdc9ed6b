#include "core/diagnostics.h"

#include <algorithm>
#include <new>

#include "core/message.h"

namespace embedded {
namespace {

const DiagnosticRecord kOutOfMemory{sqlState("HY001"), native::kNoMemory, "Out of memory."};

using Records = std::vector<DiagnosticRecord>;

Records& made(std::unique_ptr<Records>& records) {
    if (!records) records = std::make_unique<Records>();
    return *records;
}

}  // namespace

void Diagnostics::error(const Error& error) noexcept {
    try {
        // In front of any warnings: many callers read only the first record.
        Records& records = made(m_records);
        records.insert(records.begin(), {sqlState(error.state()), error.native(), error.what()});
    } catch (const std::bad_alloc&) {
        outOfMemory();
    }
}

void Diagnostics::rowError(const Error& error, SQLULEN row) noexcept {
    try {
        Records& records = made(m_records);
        const auto place = std::partition_point(
            records.begin(), records.end(), [](const auto& record) { return record.native != 0; });
        records.insert(place, {sqlState(error.state()), error.native(), error.what(),
                               static_cast<SQLLEN>(row)});
    } catch (const std::bad_alloc&) {
        outOfMemory();
    }
}

void Diagnostics::warning(std::string_view state, std::string_view text) {
    made(m_records).push_back({sqlState(state), 0, runtimeMessage(text)});
}

const DiagnosticRecord* Diagnostics::at(size_t index) const noexcept {
    if (m_outOfMemory) {
        if (index == 0) return &kOutOfMemory;
        --index;
    }
    return m_records && index < m_records->size() ? &(*m_records)[index] : nullptr;
}

void Diagnostics::consumeFirst() noexcept {
    if (m_outOfMemory) {
        m_outOfMemory = false;
    } else if (m_records) {
        m_records->erase(m_records->begin());
        if (m_records->empty()) m_records.reset();
    }
}

}  // namespace embedded
