#pragma once

#include <sql.h>
#include <sqlext.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/error.h"

namespace embedded {

/// One diagnostic record. Warnings carry the native code 0.
struct DiagnosticRecord {
    SqlState state;
    int native;
    std::string message;
    SQLLEN row = SQL_NO_ROW_NUMBER;  ///< from 1, of the result
};

/// The diagnostics of one handle, filled by its last call. Costs one pointer while empty.
class Diagnostics {
  public:
    void clear() noexcept {
        m_records.reset();
        m_outOfMemory = false;
    }

    /// Records a failure; when even that needs memory that is not there, records the lack of
    /// memory.
    void error(const Error& error) noexcept;

    /// Records HY001; needs no memory.
    void outOfMemory() noexcept { m_outOfMemory = true; }

    /// Records the failure of one of several rows, behind those of others and before any warnings.
    void rowError(const Error& error, SQLULEN row) noexcept;

    void warning(std::string_view state, std::string_view text);

    size_t count() const noexcept {
        return (m_records ? m_records->size() : 0) + (m_outOfMemory ? 1 : 0);
    }

    /// The record at the 0-based `index`, or null. Valid until the next change.
    const DiagnosticRecord* at(size_t index) const noexcept;

    /// Removes the first record.
    void consumeFirst() noexcept;

  private:
    std::unique_ptr<std::vector<DiagnosticRecord>> m_records;
    bool m_outOfMemory = false;
};

}  // namespace embedded
