#include "odbc/parameterarray.h"

#include <algorithm>

namespace embedded {
namespace {

/// No status of a driver.
constexpr SQLUSMALLINT kUntouched = 0xFFFF;

}  // namespace

ParameterArray::ParameterArray(OdbcStatement& statement, SQLULEN count)
    : m_statement(statement), m_status(count, kUntouched) {
    const SQLRETURN sized = set(SQL_ATTR_PARAMSET_SIZE, count);
    m_sized = SQL_SUCCEEDED(sized);
    m_accepted = sized == SQL_SUCCESS && point(SQL_ATTR_PARAM_STATUS_PTR, m_status.data()) &&
                 point(SQL_ATTR_PARAMS_PROCESSED_PTR, &m_processed);
}

ParameterArray::~ParameterArray() {
    if (!m_sized) return;
    const bool single = SQL_SUCCEEDED(set(SQL_ATTR_PARAMSET_SIZE, 1));
    const bool released = point(SQL_ATTR_PARAM_STATUS_PTR, nullptr);
    const bool forgotten = point(SQL_ATTR_PARAMS_PROCESSED_PTR, nullptr);
    if (!single || !released || !forgotten) m_statement.unusable = true;
}

std::optional<SQLULEN> ParameterArray::failed() const noexcept {
    const auto isFailure = [](SQLUSMALLINT status) { return status == SQL_PARAM_ERROR; };
    if (std::count_if(m_status.begin(), m_status.end(), isFailure) != 1) return std::nullopt;
    return static_cast<SQLULEN>(std::find_if(m_status.begin(), m_status.end(), isFailure) -
                                m_status.begin());
}

bool ParameterArray::complete() const noexcept {
    const auto all = [this](auto... states) {
        return std::all_of(m_status.begin(), m_status.end(),
                           [&](SQLUSMALLINT status) { return ((status == states) || ...); });
    };
    return m_processed == m_status.size() &&
           (all(kUntouched) ||
            all(SQL_PARAM_SUCCESS, SQL_PARAM_SUCCESS_WITH_INFO, SQL_PARAM_DIAG_UNAVAILABLE));
}

SQLRETURN ParameterArray::set(SQLINTEGER attribute, SQLULEN value) const noexcept {
    return m_statement.set(attribute, reinterpret_cast<SQLPOINTER>(value));
}

bool ParameterArray::point(SQLINTEGER attribute, SQLPOINTER value) const noexcept {
    return SQL_SUCCEEDED(m_statement.set(attribute, value));
}

}  // namespace embedded
