#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace embedded {

/// Room for any number that `formatInteger` and `formatDouble` write.
using NumberBuffer = char[32];

std::string_view formatInteger(std::int64_t value, NumberBuffer& buffer) noexcept;

/// The shortest text that reads back as the same double; whole numbers keep a ".0", as SQLite
/// writes.
std::string_view formatDouble(double value, NumberBuffer& buffer) noexcept;

/// A decimal number ("-1.50", ".5", "12e3") in plain digits without exponent: "-1.50", "0.5",
/// "12000". Nothing when `text` is no decimal number or would take more than a thousand digits.
std::optional<std::string> plainDecimal(std::string_view text);

/// The decimal that a double stands for, in plain digits: the one of 15 digits that it is or is
/// next to, which is what a computation or SQLite's reading of a text may have missed by that
/// little; else the shortest that reads back as `value`. Nothing for an infinity.
std::optional<std::string> plainDecimal(double value);

/// Whether `value` is whole and within 64 bits; stores it if so.
bool exactInteger(double value, std::int64_t& out) noexcept;

}  // namespace embedded
