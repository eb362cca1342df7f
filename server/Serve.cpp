/// dsessd serve: makes the parts of the server, and runs it until it is told to stop.

#include <sys/resource.h>
#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <future>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "server/Commands.h"
#include "server/Heartbeat.h"
#include "server/http/HttpServer.h"
#include "server/http/Monitor.h"
#include "server/log/Log.h"
#include "server/log/Text.h"
#include "server/metrics/Metrics.h"
#include "server/service/Authenticator.h"

namespace dsessd {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kTryEvery{1};
constexpr std::chrono::minutes kSayEvery{1};
constexpr std::chrono::milliseconds kLookEvery{20};

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

// The server's own files and the store's need some descriptors; the rest is for connections.
constexpr rlim_t kLeastDescriptors = 256;
constexpr std::size_t kOtherDescriptors = 128;

/// Raises the limit of descriptors as far as it goes, and gives it. A connection may need two: its socket, and a file
/// for what its client has not taken yet.
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
            throw Failure(failure.reason() == Reason::kUncertain ? Reason::kUnavailable : failure.reason(),
                          std::string("the store takes no changes: ") + failure.what());
        }
    }
}

/// All of the server that needs the store.
class Node {
  public:
    /// Throws Failure.
    Node(const ServeOptions& options, Log& log, Metrics& metrics)
        : m_stores(
              options.data,
              [&log, &metrics](Store::Event event, const std::string& line) {
                  log.write(Topic::kNotice, harmless(line));
                  if (event == Store::Event::kMadeAnew) {
                      metrics.storeReconnects.Increment();
                  }
              },
              options.storeConnections),
          service(m_stores, m_authenticator, log, metrics, options.anonymous) {
        checkThatItTakesChanges(m_stores);
        m_beat.emplace(m_stores, log, metrics, options.membership, !options.monitor.empty());
    }

  private:
    StorePool m_stores;
    Authenticator m_authenticator;

  public:
    Service service;

  private:
    std::optional<Heartbeat> m_beat;
};

/// Opens the store. A database may start later than the server, so this waits for one that cannot be used yet. A file
/// does not mend itself, so that its failure is thrown at once.
std::unique_ptr<Node> makeNode(const ServeOptions& options, Log& log, Metrics& metrics) {
    std::string said;
    Clock::time_point nextSay;
    for (;; std::this_thread::sleep_for(kTryEvery)) {
        try {
            return std::make_unique<Node>(options, log, metrics);
        } catch (const Failure& failure) {
            metrics.count(failure);
            const bool mayPass = failure.reason() == Reason::kUnavailable || failure.reason() == Reason::kBusy;
            if (!mayPass || !Store::isDatabase(options.data)) {
                throw;
            }
            if (failure.what() == said && Clock::now() < nextSay) {
                continue;
            }
            said = failure.what();
        }
        nextSay = Clock::now() + kSayEvery;
        const std::string line = "waiting for the store: " + harmless(said);
        log.write(Topic::kFailure, line);
        sd_notify(0, ("STATUS=" + line).c_str());
    }
}

/// Nothing has begun while a node waits for its store, so a signal ends the process at once.
std::unique_ptr<Node> awaitNode(const ServeOptions& options, Log& log, Metrics& metrics, int signals) {
    auto node = std::async(std::launch::async, makeNode, std::cref(options), std::ref(log), std::ref(metrics));
    while (node.wait_for(kLookEvery) != std::future_status::ready) {
        signalfd_siginfo signal{};
        if (::read(signals, &signal, sizeof signal) == sizeof signal && signal.ssi_signo != SIGHUP) {
            log.write(Topic::kNotice, "stopped before it served");
            ::_exit(0);
        }
    }
    return node.get();
}

/// Tells the service manager that the server works, as often as it wants to hear it.
class Watchdog {
  public:
    Watchdog() {
        std::uint64_t microseconds = 0;
        if (sd_watchdog_enabled(0, &microseconds) > 0) {
            m_every = std::chrono::microseconds(microseconds / 3);
        }
    }
    void works() {
        const auto now = Clock::now();
        if (m_every.count() > 0 && now >= m_next) {
            m_next = now + m_every;
            sd_notify(0, "WATCHDOG=1");
        }
    }

  private:
    std::chrono::microseconds m_every{0};
    Clock::time_point m_next;
};

}  // namespace

int serve(const ServeOptions& options) {
    std::signal(SIGPIPE, SIG_IGN);
    const QelFileDescriptor signals = takeOverSignals();
    HttpLimits limits;
    limits.connections = std::min(limits.connections, (allowManyDescriptors() - kOtherDescriptors) / 2);
    Log log(STDERR_FILENO);
    LastResort lastResort(log);
    Metrics metrics(log);
    std::optional<Monitor> monitor;
    if (!options.monitor.empty()) {
        monitor.emplace(Listener(options.monitor), metrics, log);
        log.write(Topic::kNotice, "monitored at http://" + monitor->address() + "/healthz and /metrics");
    }
    const auto tls =
        options.tls.certificate.empty() ? nullptr : std::make_unique<TlsInForce>(options.tls, log, metrics);
    // Nothing listens while the node waits for its store: clients are refused and try another node at once.
    Listener listener(options.listen);
    const std::unique_ptr<Node> node = awaitNode(options, log, metrics, signals.get());
    HttpServer server(node->service, log, metrics, options.instances, tls.get(), limits);
    const auto sayReady = [&, ready = readyLine(options, listener)] {
        const std::string text = ready.substr(ready.find("listening"));
        log.write(Topic::kNotice, text);
        sd_notify(0, ("READY=1\nSTATUS=" + text).c_str());
        std::cout << ready << std::endl;  // last: nothing fails any more
    };
    const auto sayStopping = [&] {
        lastResort.startClock();
        metrics.health.stop();
        sd_notify(0, "STOPPING=1\nSTATUS=finishing the requests in progress");
    };
    listener.open();
    server.run(
        std::move(listener), signals.get(), sayReady, [watchdog = Watchdog()]() mutable { watchdog.works(); },
        sayStopping);
    log.write(Topic::kNotice, "stopped");
    return 0;
}

}  // namespace dsessd
