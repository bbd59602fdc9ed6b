#pragma once

#include <sql.h>
#include <sqlext.h>

#include <string>
#include <string_view>
#include <vector>

namespace embedded {

/// Text for the driver manager's wide functions: UTF-16, lengths in units of two bytes.
using WideText = std::vector<SQLWCHAR>;

/// `text`, UTF-8, with a terminator behind it, which `size` counts, and room for drivers that read
/// on. Throws 22021 for a text that is not UTF-8.
WideText wideText(std::string_view text);

inline constexpr const char* kNotUtf8 = "A text is not UTF-8.";

/// Throws 22021 for a text that is not UTF-8, with that message.
void requireUtf8(std::string_view text, const char* message);

/// Throws 42000 for a text with a NUL, where some drivers stop reading; `what` it is.
void refuseNul(std::string_view text, const char* what);

/// Appends `text`, UTF-8, to `wide`, without a terminator.
void appendWide(std::string_view text, WideText& wide);

/// `length` units as UTF-8. Throws 22021 for a text that is not UTF-16: half a surrogate pair has
/// no UTF-8 form.
std::string narrowText(const SQLWCHAR* text, size_t length);

/// The same, appended to `narrow`.
void appendNarrow(const SQLWCHAR* text, size_t length, std::string& narrow);

/// The same with U+FFFD in place of what is not UTF-16; for messages.
std::string readableText(const SQLWCHAR* text, size_t length);

}  // namespace embedded
