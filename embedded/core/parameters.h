#pragma once

#include <sql.h>
#include <sqlext.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "core/error.h"
#include "values/temporal.h"

namespace embedded {

/// One SQLBindParameter call. Data and indicators are the application's and are read at execution.
struct ParameterBinding {
    SQLSMALLINT cType = 0;
    SQLSMALLINT sqlType = 0;
    const char* data = nullptr;
    SQLLEN bufferLength = 0;
    const SQLLEN* indicators = nullptr;
    bool bound = false;
};

/// How the values of several parameter sets lie in memory.
struct ParameterLayout {
    SQLULEN rowSize = SQL_PARAM_BIND_BY_COLUMN;  ///< bytes from set to set, or column-wise
    SQLULEN offset = 0;                          ///< added to every address
};

/// Where the application wants to read how far an execution got; each may be null.
struct ParameterReport {
    SQLUSMALLINT* status = nullptr;  ///< SQL_PARAM_… for every set
    SQLULEN* processed = nullptr;
};

/// The value of one parameter in one set. Its bytes are the application's.
struct Value {
    enum class Kind { Null, Integer, Real, Text, Binary, Temporal };

    Kind kind = Kind::Null;
    std::int64_t integer = 0;
    double real = 0;
    std::string_view bytes;  ///< of a text (UTF-8) or binary data; never a null pointer
    Temporal temporal{};     ///< valid
};

/// The C type that `cType` stands for with the SQL type `sqlType`, which matters for SQL_C_DEFAULT
/// only. Throws HY003 for a type that is none, HYC00 for one that parameters cannot have.
SQLSMALLINT parameterCType(SQLSMALLINT cType, SQLSMALLINT sqlType);

/// The values for one execution, read from the application's buffers as they are asked for, and
/// the reports on what became of them. Sets are counted from 0, parameters from 1.
class ParameterSets {
  public:
    ParameterSets(const std::vector<ParameterBinding>& bindings, const ParameterLayout& layout,
                  const ParameterReport& report, SQLULEN count) noexcept;
    ParameterSets(const ParameterSets&) = delete;
    ParameterSets& operator=(const ParameterSets&) = delete;

    SQLULEN count() const noexcept { return m_count; }

    /// Throws 07002 unless each of `markers` parameters has a binding.
    void require(int markers) const;

    /// The binding of a parameter that `require` has found.
    const ParameterBinding& binding(int number) const noexcept {
        return m_bindings[static_cast<size_t>(number) - 1];
    }

    /// Throws for a value that is none, or that 64 bits cannot hold.
    Value value(SQLULEN set, int number) const;

    void allSucceeded() noexcept;

    /// Reports the set as failed, and those in front of it as processed. Answers `error` with its
    /// number, if there are several.
    Error failed(SQLULEN set, const Error& error);

  private:
    void setStatus(SQLULEN set, SQLUSMALLINT status) noexcept {
        if (m_report.status) m_report.status[set] = status;
    }

    const std::vector<ParameterBinding>& m_bindings;
    const ParameterLayout m_layout;
    const ParameterReport m_report;
    const SQLULEN m_count;
};

}  // namespace embedded
