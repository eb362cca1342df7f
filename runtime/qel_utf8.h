/// UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct QelCharacter {
    std::uint32_t codePoint = 0;
    std::size_t length = 0;  ///< in bytes; 0: there is no well-formed character
};

/// The character that `text`, which is not empty, begins with.
QelCharacter qel_utf8_decode(std::string_view text) noexcept;

/// Whether the bytes are well-formed and without NUL, as all text is that comes from outside.
[[nodiscard]] bool qel_utf8_is_text(std::string_view bytes) noexcept;
