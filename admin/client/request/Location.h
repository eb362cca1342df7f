/// A server's address: the parts of an http or https URL (RFC 9110, section 4.2), such as
///
///     https://node1:9443/blue/services/DSessAdminProxy
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace olmdsess {

/// The parts of a URL that connecting and asking need.
struct Location {
    bool secure;            ///< https
    std::string authority;  ///< as the URL has it: "host:port" or "[2001:db8::1]:port", the port perhaps missing
    std::string host;       ///< a name or an address, without brackets
    std::string port;       ///< decimal; the scheme's own when the URL names none
    std::string path;       ///< with the query, and never empty
};

/// Splits a URL into its parts. Returns nothing when it cannot be used: its scheme is not http or https, it holds a
/// user name, it lacks a host, its port is not a number up to 65535, or it holds a blank or a control character. Throws
/// std::bad_alloc.
std::optional<Location> parseLocation(std::string_view url);

}  // namespace olmdsess
