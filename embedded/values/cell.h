#pragma once

#include <cstdint>
#include <string_view>

#include "values/temporal.h"

namespace embedded {

/// One value of a result row, as the engine has it. Borrows its bytes from the row.
struct Cell {
    enum class Kind { Null, Integer, Real, Text, Binary, Temporal };

    Kind kind = Kind::Null;
    std::int64_t integer = 0;
    double real = 0;
    std::string_view bytes{};            ///< of a text (UTF-8) or of binary data
    const Temporal* temporal = nullptr;  ///< a date or time that comes as no text; valid

    static Cell text(std::string_view value) noexcept {
        return {.kind = Kind::Text, .bytes = value};
    }
    static Cell number(std::int64_t value) noexcept {
        return {.kind = Kind::Integer, .integer = value};
    }
};

}  // namespace embedded
