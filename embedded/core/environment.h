#pragma once

#include <mutex>
#include <vector>

#include "core/handle.h"

namespace embedded {

/// An environment handle. Knows its connections by their handles only.
class Environment final : public Handle {
  public:
    static constexpr SQLSMALLINT kHandleType = SQL_HANDLE_ENV;

    Environment() noexcept : Handle(kHandleType) {}
    std::mutex& mutex() noexcept { return m_mutex; }
    bool inherited() const noexcept { return false; }  ///< it has no file, and serves any process

    SQLINTEGER odbcVersion = 3;
    std::vector<SQLHANDLE> connections;

  private:
    std::mutex m_mutex;
};

}  // namespace embedded
