/// What a command says of a value that it cannot take.
#pragma once

#include <cstdint>

/// Writes that the value given for `name` is not valid, on a line of its own, and returns kStatusInvalidValue.
std::uint32_t refuseValue(const char* name);
