/// Tells which characters must not reach a terminal as they are, and gives what is shown in their place.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// Whether a character does more than show itself where it stands. Such are C0 and C1 controls and DEL (ECMA-48), the
/// separators of lines and paragraphs, and what reorders the text around it (Unicode Standard Annex 9).
bool qel_drives_terminal(std::uint32_t codePoint) noexcept;

/// How many bytes at the beginning of `text` are printable ASCII or tabs, and are shown as they are.
std::size_t qel_plain_prefix(std::string_view text) noexcept;

/// What is shown, NUL-terminated, in place of a character: \xNN for ASCII, \u{NNNN} for others.
std::array<char, 16> qel_escape(std::uint32_t codePoint) noexcept;

/// The same in place of a byte that is part of no character: \xNN.
std::array<char, 16> qel_escape_byte(char byte) noexcept;
