/// An administrator of the cluster: name, password and role.
#pragma once

#include <string>

namespace dsessd {

/// What an administrator may do.
enum class Role { kRead, kChange };

/// `read` or `change`: how a role stands in the store and on the command line.
constexpr const char* nameOf(Role role) {
    return role == Role::kChange ? "change" : "read";
}

struct Administrator {
    std::string name;
    /// As crypt(5) writes it.
    std::string passwordHash;
    Role role = Role::kRead;
};

}  // namespace dsessd
