/// dsessd admin: adds, removes and lists administrators, and changes their passwords.

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <stdexcept>

#include "runtime/qel_utf8.h"
#include "server/Commands.h"
#include "server/log/Text.h"
#include "server/service/Password.h"
#include "server/store/Store.h"

namespace dsessd {

namespace {

void checkAdministratorName(const std::string& name) {
    if (name.empty() || name.size() > kMaxNameBytes || !qel_utf8_is_text(name) || name == kAnonymousUser) {
        throw std::runtime_error("'" + harmless(name) + "' cannot be an administrator's name");
    }
}

/// Whoever runs this command, and on which machine: `root for alice on node1`.
std::string localUser() {
    const passwd* user = ::getpwuid(::getuid());
    const char* behind = std::getenv("SUDO_USER");
    std::array<char, HOST_NAME_MAX + 1> host{};
    ::gethostname(host.data(), HOST_NAME_MAX);
    return (user != nullptr ? user->pw_name : "user " + std::to_string(::getuid())) +
           (behind != nullptr ? std::string(" for ") + behind : "") + " on " + host.data();
}

/// Shows what was done, and has all nodes log it. `act` gives its text.
void carryOut(Store& store, const std::function<std::string()>& act) {
    std::string done;
    store.doLocally([&] { return (done = act()) + ", by " + localUser(); });
    std::cout << "dsessd: " << done << std::endl;
}

/// Adds an administrator, or gives an existing one a new password. An existing one keeps the role unless the options
/// name another.
void putAdministrator(Store& store, const AdminOptions& options) {
    const std::string hash = hashOfNewPassword(options.name);
    carryOut(store, [&] {
        const auto known = store.administrator(options.name);
        if (!known && options.action == AdminOptions::Action::kPassword) {
            throw std::runtime_error("there is no administrator " + harmless(options.name));
        }
        const Role role = options.role.value_or(known ? known->role : Role::kChange);
        store.putAdministrator({options.name, hash, role});
        return "administrator " + harmless(options.name) + (known ? " has a new password" : " added") +
               (role == Role::kRead ? ", may read" : ", may change");
    });
}

void removeAdministrator(Store& store, const std::string& name) {
    carryOut(store, [&] {
        if (!store.removeAdministrator(name)) {
            throw std::runtime_error("there is no administrator " + harmless(name));
        }
        return "administrator " + harmless(name) + " removed";
    });
}

void listAdministrators(Store& store) {
    for (const Administrator& administrator : store.administrators()) {
        std::cout << harmless(administrator.name) << " " << nameOf(administrator.role) << "\n";
    }
}

}  // namespace

int administrate(const AdminOptions& options) {
    using Action = AdminOptions::Action;
    if (options.action == Action::kAdd) {
        checkAdministratorName(options.name);
    }
    const auto store =
        Store::open(options.data, options.action == Action::kAdd ? Store::IfMissing::kCreate : Store::IfMissing::kFail);
    try {
        switch (options.action) {
            case Action::kAdd:
            case Action::kPassword:
                putAdministrator(*store, options);
                break;
            case Action::kRemove:
                removeAdministrator(*store, options.name);
                break;
            case Action::kList:
                listAdministrators(*store);
                break;
        }
        return 0;
    } catch (const Failure& error) {
        if (error.reason() == Reason::kUncertain) {
            throw;
        }
        throw Failure(Store::describe(options.data) + " cannot be used: " + error.what());
    }
}

}  // namespace dsessd
