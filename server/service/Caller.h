/// Describes who a request comes from: the connection, the name and password in the request, and what that user may do.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "server/store/Administrator.h"

namespace dsessd {

/// What may be done without a login.
enum class Anonymous { kNone, kRead };

/// The user of a request without a login. No administrator bears this name.
inline constexpr char kAnonymousUser[] = "anonymous";

/// The other end of a connection.
struct Peer {
    /// The client's address without its port, or for IPv6 the /64 network of the address. Requests of different hosts
    /// take turns.
    std::string host;
    /// For the log: address and port, such as `127.0.0.1:50312`.
    std::string address;
    /// Subject, issuer and serial number of the client's certificate, as the log shows them; empty when it has shown
    /// none.
    std::string certificate;
};

/// What a request says about its sender. The texts lie in the request.
struct Credentials {
    std::string_view user;
    /// Ends in a NUL; null: none.
    const char* password = nullptr;
    std::string_view loginId;

    bool areAnonymous() const { return user == kAnonymousUser && (password == nullptr || *password == '\0'); }
};

struct Caller {
    Peer peer;
    Credentials credentials;
    /// What the user may do. Nothing as long as nobody is identified.
    std::optional<Role> role;

    /// For the log, such as `root from 127.0.0.1:50312 with certificate /CN=desk, issued by /CN=ca, serial number 1F`.
    std::string description() const;
};

}  // namespace dsessd
