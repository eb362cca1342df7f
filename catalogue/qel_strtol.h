/// Reads the whole numbers that users type: a sign, decimal digits, and nothing behind them.
#pragma once

#include <cstdint>

/// Converts a whole text: an optional sign and decimal digits that fit a signed 32-bit integer, nothing else. `base` is
/// 10. Returns 0, or kStatusInvalidValue, which leaves `value` as it was. Null is no number.
[[nodiscard]] std::uint32_t qel_strtol(const char* text, int base, std::int32_t* value) noexcept;
