/// Passwords of administrators: hashes for storage (crypt(3), yescrypt) and how one is entered.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "server/Text.h"

namespace dsessd {

/// The longest password that crypt(3) takes, in bytes.
inline constexpr std::size_t kMaxPasswordBytes = 511;

/// A salted hash of the password at the library's default cost. Empty when there is no randomness or the password is
/// too long.
std::string hashPassword(const char* password);

/// Whether the password is the one `hash` was made from. Costs the same whether it is or not.
bool passwordMatches(const char* password, const std::string& hash);

/// Reads a new password for `name` from standard input: when that is a terminal without echo and twice, else its first
/// line. The terminal gets its echo back whatever happens, signals included. Nothing, with the reason on `problem`,
/// when the two differ or there is none.
bool readNewPassword(std::string_view name, SecretString& password, std::string& problem);

}  // namespace dsessd
