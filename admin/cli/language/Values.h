/// Values that a line or an option gives: reads those that are numbers, and refuses what is not valid.
#pragma once

#include <cstdint>

/// Writes that the value given for `name` is not valid, on a line of its own. Returns kStatusInvalidValue.
[[nodiscard]] std::uint32_t refuseValue(const char* name);

/// The whole number that a word stands for (qel_strtol). Refuses what is no number, or less than `least`: throws
/// QelFailure.
[[nodiscard]] std::int32_t readNumber(const char* word, const char* name, std::int32_t least);
