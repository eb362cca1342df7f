/// Takes random bytes from the system.
#pragma once

#include <cstddef>

/// Fills a buffer from the system's random source (getrandom(2)). Returns whether the system gave the bytes.
[[nodiscard]] bool qel_get_random_bytes(void* buffer, std::size_t length) noexcept;
