/// Where one server is asked: the parts of an http or https URL (RFC 9110, section 4.2).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace olmdsess {

struct Location {
    bool secure;            ///< https
    std::string authority;  ///< as the URL has it: "host:port" or "[2001:db8::1]:port", the port perhaps missing
    std::string host;       ///< a name or an address, without brackets
    std::string port;       ///< decimal; the scheme's own when the URL names none
    std::string path;       ///< with the query, and never empty
};

/// Takes a URL apart. Empty when it is no usable one: another scheme, a user name, no host, a port that is no number,
/// or a byte that has no place in a line of a request. Throws std::bad_alloc.
std::optional<Location> parseLocation(std::string_view url);

}  // namespace olmdsess
