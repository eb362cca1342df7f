/// Values that a line or an option gives: reads those that are numbers, and refuses what is not valid.
#pragma once

#include <cstdint>

/// Writes that the value given for `name` is not valid, on a line of its own. Returns kStatusInvalidValue.
[[nodiscard]] std::uint32_t refuseValue(const char* name);

/// Reads a whole number from a word of the command, as qel_strtol does. Throws a QelFailure that names the value when
/// the word is no number or the number is less than `least`.
[[nodiscard]] std::int32_t readNumber(const char* word, const char* name, std::int32_t least);
