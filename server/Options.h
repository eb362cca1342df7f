/// The command line of dsessd, taken apart.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "server/Heartbeat.h"
#include "server/http/Tls.h"
#include "server/service/Caller.h"
#include "server/store/Administrator.h"

namespace dsessd {

struct ServeOptions {
    std::string listen;
    std::string data;
    std::vector<std::string> instances;
    Anonymous anonymous = Anonymous::kNone;
    Membership membership;
    /// Where the monitoring system is answered. Empty: nowhere.
    std::string monitor;
    std::size_t storeConnections = StorePool::kAnyNumber;
    /// Plain HTTP when the certificate is empty.
    TlsFiles tls;
};

/// What is done to a store as a whole.
struct DataOptions {
    enum class Action { kLoad, kDump, kBackUp, kRestore, kUpgrade };
    Action action = Action::kLoad;
    std::string data;
    /// The file to read or write. `-` stands for standard input (load) or output (dump). Empty for an upgrade.
    std::string file;
};

struct AdminOptions {
    enum class Action { kAdd, kPassword, kRemove, kList };
    Action action = Action::kList;
    std::string data;
    std::string name;
    /// The role that --role names. Without it an existing administrator keeps the role, and a new one gets kChange.
    std::optional<Role> role;
};

/// The command line was dealt with (help, version) or is wrong: what is left is to end with this status.
struct EndWith {
    int status;
};

using Options = std::variant<EndWith, ServeOptions, DataOptions, AdminOptions>;

/// Help and version go to standard output, complaints to standard error.
Options parseOptions(int argc, char** argv);

}  // namespace dsessd
