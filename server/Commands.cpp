#include "server/Commands.h"

#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <iostream>
#include <limits>
#include <mutex>
#include <thread>

#include "runtime/qel_utf8.h"
#include "server/Heartbeat.h"
#include "server/http/HttpServer.h"
#include "server/log/Log.h"
#include "server/log/Text.h"
#include "server/service/Authenticator.h"
#include "server/service/Password.h"

namespace dsessd {

namespace {

/// SIGTERM, SIGINT and SIGHUP as a descriptor to wait for. Made before any thread, so that all threads leave them
/// alone.
QelFileDescriptor takeOverSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    QelFileDescriptor fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd.isOpen()) {
        throw std::runtime_error(std::string("no descriptor for signals: ") + std::strerror(errno));
    }
    return fd;
}

// Those of the store and the server itself, and some connections.
constexpr rlim_t kLeastDescriptors = 256;
constexpr std::size_t kOtherDescriptors = 128;

/// Gives how many there may be. A connection may need two: its own and that of a file with what it has not taken yet.
std::size_t allowManyDescriptors() {
    rlimit limit{};
    const rlim_t before = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 0;
    limit.rlim_cur = limit.rlim_max;
    const rlim_t now = ::setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : before;
    if (now < kLeastDescriptors) {
        throw std::runtime_error("at least " + std::to_string(kLeastDescriptors) +
                                 " descriptors are needed, of which " + std::to_string(now) +
                                 " are allowed; see 'ulimit -n' and LimitNOFILE");
    }
    return static_cast<std::size_t>(std::min<rlim_t>(now, std::numeric_limits<int>::max()));
}

/// Ends the process when it does not end by itself in time. Some of what a thread may wait for cannot be broken off,
/// such as a database that a connection is being made to, or a disk. It all counts as a crash does: nothing that was
/// acknowledged is lost.
class LastResort {
  public:
    explicit LastResort(Log& log) : m_log(log) {}

    void startClock() {
        m_thread = std::jthread([this](const std::stop_token& ended) {
            std::unique_lock lock(m_mutex);
            std::condition_variable_any().wait_for(lock, ended, kEndWithin, [] { return false; });
            if (!ended.stop_requested()) {
                m_log.write(Topic::kFailure, "ended without waiting for what cannot be broken off");
                ::_exit(0);
            }
        });
    }

  private:
    static constexpr std::chrono::milliseconds kEndWithin{9'500};
    Log& m_log;
    std::mutex m_mutex;
    std::jthread m_thread;
};

std::string readyLine(const ServeOptions& options, const Listener& listener) {
    std::string line = "dsessd: listening on ";
    line += options.tls.certificate.empty() ? "http://" : "https://";
    line += listener.address() + "/ for instances ";
    for (const std::string& instance : options.instances) {
        line += (&instance == &options.instances.front() ? "" : ", ") + instance;
    }
    return line;
}

void checkThatItTakesChanges(StorePool& stores) {
    try {
        stores.take()->tryWriting();
    } catch (const Failure& failure) {
        if (failure.reason() != Reason::kBusy) {  // if it is, somebody else can write
            throw Failure(std::string("the store takes no changes: ") + failure.what());
        }
    }
}

}  // namespace

int serve(const ServeOptions& options) {
    std::signal(SIGPIPE, SIG_IGN);
    const QelFileDescriptor signals = takeOverSignals();
    HttpLimits limits;
    limits.connections = std::min(limits.connections, (allowManyDescriptors() - kOtherDescriptors) / 2);
    Log log(STDERR_FILENO);
    LastResort lastResort(log);
    StorePool stores(options.data, [&log](const std::string& line) { log.write(Topic::kNotice, harmless(line)); });
    Authenticator authenticator;
    Service service(stores, authenticator, log, options.anonymous);
    const auto tls = options.tls.certificate.empty() ? nullptr : std::make_unique<TlsInForce>(options.tls, log);
    HttpServer server(service, log, options.instances, tls.get(), limits);
    Listener listener(options.listen);
    const Heartbeat beat(stores, log, options.membership);

    checkThatItTakesChanges(stores);
    const auto sayReady = [&log, ready = readyLine(options, listener)] {
        log.write(Topic::kNotice, ready.substr(ready.find("listening")));
        std::cout << ready << std::endl;  // last: nothing fails any more
    };
    server.run(std::move(listener), signals.get(), sayReady, [&] { lastResort.startClock(); });
    log.write(Topic::kNotice, "stopped");
    return 0;
}

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
