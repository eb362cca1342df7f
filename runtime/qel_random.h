/// Random bytes.
#pragma once

#include <cstddef>
#include <cstdint>

/// Fills a buffer from the system's random source (getrandom(2)). Returns 0 or kStatusNoRandom.
[[nodiscard]] std::uint32_t qel_get_random_bytes(void* buffer, std::size_t length) noexcept;
