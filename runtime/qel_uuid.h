/// Makes random UUIDs as text.
#pragma once

#include <array>
#include <optional>

/// 36 characters in lower case, such as "5f0c954b-1f7e-4f3a-9d61-0a54c8a1f2b3", and a NUL.
using QelUuidText = std::array<char, 37>;

/// Makes a random UUID (RFC 4122, version 4), or none when the system gives no random bytes.
[[nodiscard]] std::optional<QelUuidText> qel_make_uuid() noexcept;
