/// Passwords of administrators: hashes for storage (crypt(3), yescrypt) and how one is entered.
#pragma once

#include <string>
#include <string_view>

namespace dsessd {

/// The longest password that crypt(3) takes, in bytes.
inline constexpr std::size_t kMaxPasswordBytes = 511;
/// The shortest that is taken for a new password.
inline constexpr int kMinPasswordCharacters = 6;

/// A salted hash of the password at the library's default cost. Empty when there is no randomness or the password is
/// too long. Throws std::system_error when it cannot be computed now, for want of memory for instance.
[[nodiscard]] std::string hashPassword(const char* password);

/// Whether the password is the one `hash` was made from. Costs the same whether it is or not. Throws as
/// hashPassword() does.
[[nodiscard]] bool passwordMatches(const char* password, const std::string& hash);

/// Reads a new password for `name` from standard input, without echo and twice when that is a terminal, else its first
/// line, and gives its hash. Throws std::runtime_error with one line that says why there is none.
std::string hashOfNewPassword(std::string_view name);

}  // namespace dsessd
