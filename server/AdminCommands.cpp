/// dsessd admin: adds, removes and lists administrators.

#include <iostream>
#include <stdexcept>

#include "runtime/qel_utf8.h"
#include "server/Commands.h"
#include "server/log/Text.h"
#include "server/service/Password.h"
#include "server/store/Store.h"

namespace dsessd {

namespace {

void checkName(const std::string& name) {
    if (name.empty() || name.size() > kMaxNameBytes || !qel_utf8_is_text(name) || name == kAnonymousUser) {
        throw std::runtime_error("'" + harmless(name) + "' cannot be an administrator's name");
    }
}

void addAdministrator(Store& store, const AdminOptions& options) {
    const std::string hash = hashOfNewPassword(options.name);
    const bool isNew = store.putAdministrator({options.name, hash, options.role});
    std::cout << "dsessd: administrator " << harmless(options.name) << (isNew ? " added" : " changed")
              << (options.role == Role::kRead ? ", may read" : ", may change") << std::endl;
}

void removeAdministrator(Store& store, const std::string& name) {
    if (!store.removeAdministrator(name)) {
        throw std::runtime_error("there is no administrator " + harmless(name));
    }
    std::cout << "dsessd: administrator " << harmless(name) << " removed" << std::endl;
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
        checkName(options.name);
    }
    const auto store =
        Store::open(options.data, options.action == Action::kAdd ? Store::IfMissing::kCreate : Store::IfMissing::kFail);
    try {
        switch (options.action) {
            case Action::kAdd:
                addAdministrator(*store, options);
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
