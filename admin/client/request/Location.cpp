#include "admin/client/request/Location.h"

#include <algorithm>

#include "runtime/qel_ascii.h"

namespace olmdsess {

namespace {

bool isPort(std::string_view text) {
    return !text.empty() && text.size() <= 5 &&
           std::all_of(text.begin(), text.end(), [](char byte) { return byte >= '0' && byte <= '9'; }) &&
           std::stoi(std::string(text)) <= 65535;
}

/// Blanks and control characters would end the line that they stand in.
bool hasPlace(char byte) {
    return static_cast<unsigned char>(byte) > ' ' && byte != '\x7F';
}

}  // namespace

std::optional<Location> parseLocation(std::string_view url) {
    url = url.substr(0, url.find('#'));
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos || !std::all_of(url.begin(), url.end(), hasPlace)) {
        return std::nullopt;
    }
    const bool secure = qel_ascii_equal(url.substr(0, scheme), "https");
    if (!secure && !qel_ascii_equal(url.substr(0, scheme), "http")) {
        return std::nullopt;
    }
    url.remove_prefix(scheme + 3);
    const std::string_view authority = url.substr(0, url.find_first_of("/?"));
    const std::string_view path = url.substr(authority.size());
    // An IPv6 address has colons of its own and therefore stands in brackets.
    const std::size_t bracket = authority.starts_with('[') ? authority.find(']') : 0;
    const std::size_t colon = authority.find(':', bracket);
    const std::string_view host = authority.substr(0, colon);
    const std::string_view port =
        colon == std::string_view::npos ? (secure ? "443" : "80") : authority.substr(colon + 1);
    const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (host.empty() || host.find('@') != std::string_view::npos || !isPort(port) ||
        (!isBracketed && host.find_first_of("[]") != std::string_view::npos)) {
        return std::nullopt;
    }
    return Location{secure, std::string(authority), std::string(isBracketed ? host.substr(1, host.size() - 2) : host),
                    std::string(port), (path.starts_with('/') ? "" : "/") + std::string(path)};
}

}  // namespace olmdsess
