// Telling the logger "vorda" what is executed, at its level DEBUG.
#pragma once

#include <chrono>

#include "dbapi/failure.h"

// Whether anybody listens. Looks where the logger itself keeps the answer.
bool IsLogging();

// One execution; told when it is over.
class Logged {
  public:
    Logged(PyObject* sql, size_t values) : m_sql(sql), m_values(values), m_isOn(IsLogging()) {
        if (m_isOn) m_begin = std::chrono::steady_clock::now();
    }
    ~Logged() {
        if (m_isOn) Tell();
    }
    Logged(const Logged&) = delete;
    Logged& operator=(const Logged&) = delete;
    // It did not fail; -1 rows for a query.
    void Succeeded(SQLLEN rows) {
        m_rows = rows;
        m_failed = false;
    }

  private:
    void Tell() const noexcept;

    PyObject* const m_sql;
    const size_t m_values;
    const bool m_isOn;
    std::chrono::steady_clock::time_point m_begin;
    SQLLEN m_rows = -1;
    bool m_failed = true;
};
