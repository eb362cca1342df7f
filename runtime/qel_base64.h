/// Encodes bytes as base64 text (RFC 4648), for identifiers and digests that go into messages and into the store.
#pragma once

#include <cstddef>

/// Encodes in standard base64 with padding (RFC 4648, section 4) and a terminating NUL. Returns the length without the
/// NUL, or -1 with `output` untouched when `outputSize` is too small.
[[nodiscard]] int qel_base64_std_encode(const unsigned char* input, std::size_t length, char* output,
                                        std::size_t outputSize) noexcept;
