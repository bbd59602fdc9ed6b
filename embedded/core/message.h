#pragma once

#include <string>
#include <string_view>

#include "values/text.h"

namespace embedded {

/// Longest diagnostic text in bytes. Callers commonly read diagnostics once, into 1 KiB, and drop a
/// text that does not fit; SQLite quotes tokens of any length in its messages. Leaves room for what
/// `Error::in` adds.
inline constexpr size_t kMaxMessage = 900;

/// `text` with the prefix of this runtime, truncated to `kMaxMessage`.
std::string runtimeMessage(std::string_view text);

/// `text` with the prefix that says that SQLite wrote it, truncated to `kMaxMessage`.
std::string sqliteMessage(std::string_view text);

/// `text` of a driver with the prefix that says so and the SQLSTATE, which not every caller reads
/// elsewhere; truncated to `kMaxMessage`.
std::string driverMessage(std::string_view state, std::string_view text);

}  // namespace embedded
