/// Texts in the memory of the caller of an ODBC function.
#pragma once

#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <limits>
#include <string_view>

#include "core/diagnostics.h"
#include "values/text.h"

namespace embedded {

/// The text argument of an ODBC call: UTF-8, `length` in bytes or SQL_NTS. A null pointer of length
/// 0 is the empty text. Throws HY009 for another null pointer and HY090 for another negative
/// length.
std::string_view inputText(const SQLCHAR* text, SQLLEN length);

/// Copies `text` into a caller's buffer of `capacity` bytes, truncated at a whole character and
/// terminated, and stores its full length in bytes. Either pointer may be null. Answers true when
/// it was truncated.
template <class Length>
bool outputText(std::string_view text, void* buffer, SQLLEN capacity, Length* length) {
    if (length) {
        constexpr size_t kMost = static_cast<size_t>(std::numeric_limits<Length>::max());
        *length = static_cast<Length>(std::min(text.size(), kMost));
    }
    if (!buffer || capacity <= 0) return buffer != nullptr;
    const size_t kept = wholeCharacters(text, static_cast<size_t>(capacity) - 1);
    char* out = static_cast<char*>(buffer);
    std::copy_n(text.data(), kept, out);
    out[kept] = '\0';
    return kept < text.size();
}

/// The same as the answer of a call, with a warning in words of its own where it was truncated.
/// Throws HY090 for a negative capacity.
template <class Length>
void answerText(Diagnostics& diagnostics, std::string_view text, void* buffer, SQLLEN capacity,
                Length* length,
                std::string_view warning = "The text was cut to the size of its buffer.") {
    if (capacity < 0) throw Error("HY090", "Invalid buffer length.");
    if (outputText(text, buffer, capacity, length)) diagnostics.warning("01004", warning);
}

}  // namespace embedded
