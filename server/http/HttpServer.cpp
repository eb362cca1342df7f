#include "server/http/HttpServer.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <future>
#include <map>
#include <set>
#include <thread>
#include <tuple>

#include "protocol/protocol.h"
#include "server/http/HttpConnection.h"
#include "server/scheduling/Lanes.h"

namespace dsessd {

namespace {

namespace net = boost::asio;
using Clock = HttpConnection::Clock;

constexpr std::chrono::milliseconds kTick{100};
constexpr std::chrono::seconds kHangsAfter{10};
constexpr int kTakeInTurn = 64;
constexpr std::chrono::minutes kSayBusyEvery{1};
/// A host with at most this part of the connections (1 of so many) is let in even when there are too many.
constexpr std::size_t kModestPart = 8;

/// One event loop, its thread, and the connections that it serves. Only that thread uses it, but for what is marked.
class Loop {
  public:
    Loop(HttpSetting& setting, std::size_t most) : m_setting(setting), m_most(most) {}

    HttpConnection::Context context{1};
    /// Stands for a connection that is here or on its way. For any thread.
    std::shared_ptr<void> place() const { return m_place; }
    long load() const { return m_place.use_count(); }
    /// For any thread.
    bool isRunning() const { return m_running; }
    /// Whether the thread still turns, and does not hang. May be called by any thread.
    bool turns() const { return Clock::now() - m_turned.load() < kHangsAfter; }
    /// Waits until it serves connections. Throws what keeps it from that.
    void awaitStart() { m_started.get_future().get(); }

    /// Until the server stops and the last connection has ended.
    void run() {
        const auto work = net::make_work_guard(context);
        try {
            keepMemory();
        } catch (...) {
            m_started.set_exception(std::current_exception());
            return;
        }
        m_started.set_value();
        while (m_setting.stop.load() == Clock::time_point::max() || !m_connections.empty()) {
            try {
                context.run_for(kTick);
                tick();
            } catch (const std::exception& error) {
                m_setting.log.failed("what was to be done for connections failed", error);
            }
        }
        m_running = false;
    }

    /// Takes in a new connection: another one makes room when there are as many as may be, or it is told that the
    /// server is busy. `place` stands for it.
    void admit(QelFileDescriptor socket, const std::shared_ptr<void>& place) {
        const auto connection = std::make_shared<HttpConnection>(
            m_setting, context, std::move(socket),
            [this, place](HttpConnection& ended) { m_connections.erase(ended.shared_from_this()); });
        const bool stopping = m_setting.stop.load() != Clock::time_point::max();
        const bool refused = stopping || (m_connections.size() >= m_most && !makeRoomFor(*connection));
        if (refused && !stopping) {
            m_setting.metrics.refusedConnections.Increment();
        }
        if (refused && !stopping && Clock::now() > m_saidBusy + kSayBusyEvery) {
            m_saidBusy = Clock::now();
            m_setting.log.write(Topic::kFailure,
                                "busy with " + std::to_string(m_connections.size()) + " connections, more are refused");
        }
        m_connections.insert(connection);
        try {
            connection->start(refused);
        } catch (...) {
            m_connections.erase(connection);
            throw;
        }
    }

  private:
    /// Asio keeps the memory of the messages that a thread has handled last, and uses it again. So two messages now let
    /// it end a connection later, when there is no other memory.
    void keepMemory() {
        for (int i = 0; i < 2; ++i) {
            net::post(context, [unused = std::array<char, 128>()] { static_cast<void>(unused); });
        }
        context.poll();
    }

    template <typename Action>
    void forEach(Action action) {
        for (auto next = m_connections.begin(); next != m_connections.end();) {
            const auto connection = *next++;  // it may remove itself
            action(*connection);
        }
    }

    void tick() {
        const auto now = Clock::now();
        m_turned = now;
        const auto stop = m_setting.stop.load();
        forEach([&](HttpConnection& connection) {
            if (now >= stop) {
                connection.cutOff();
                return;
            }
            if (stop != Clock::time_point::max()) {
                connection.stopBy(stop);
            }
            connection.tick(now);
        });
    }

    /// Ends a connection so that a new one has room. The host with most connections loses one, but none that has fewer
    /// than the newcomer's host. Of its connections the one goes that has waited longest for its client; one that waits
    /// for a request goes before one whose answer is taken slowly. False: none went, and the newcomer's host has many.
    bool makeRoomFor(const HttpConnection& newcomer) {
        std::map<std::string_view, std::size_t> counts{{newcomer.host(), 1}};
        for (const auto& connection : m_connections) {
            ++counts[connection->host()];
        }
        const std::size_t own = counts[newcomer.host()];
        const auto rank = [&](const HttpConnection& candidate) {
            return std::tuple(counts[candidate.host()], candidate.awaitsRequest(),
                              Clock::now() - candidate.waitingSince());
        };
        HttpConnection* leaving = nullptr;
        for (const auto& candidate : m_connections) {
            if (candidate->mayMakeRoom() && counts[candidate->host()] + 1 >= own &&
                (leaving == nullptr || rank(*candidate) > rank(*leaving))) {
                leaving = candidate.get();
            }
        }
        // Those who were told to leave still count until they have.
        if (m_connections.size() >= 2 * m_most) {
            return false;
        }
        if (leaving != nullptr) {
            leaving->takeNoMore();
        }
        return leaving != nullptr || own <= m_most / kModestPart;
    }

    HttpSetting& m_setting;
    const std::size_t m_most;
    const std::shared_ptr<void> m_place = std::make_shared<char>();
    std::set<std::shared_ptr<HttpConnection>> m_connections;
    /// When the log was last told that connections are refused.
    Clock::time_point m_saidBusy = Clock::time_point::min();
    std::atomic<bool> m_running = true;
    std::atomic<Clock::time_point> m_turned = Clock::now();
    std::promise<void> m_started;
};

std::vector<std::string> pathsOf(const std::vector<std::string>& instances) {
    std::vector<std::string> paths;
    for (const std::string& instance : instances) {
        for (const char* path : {protocol::kServicePath, protocol::kProxyServicePath}) {
            paths.push_back("/" + instance + path);
        }
    }
    return paths;
}

}  // namespace

/// What there is while the server runs. Its own thread takes connections in; the others, one for each loop, serve them.
class HttpServer::Running {
  public:
    Running(HttpServer& server, Listener listener, int signals)
        : m_setting{m_lanes, server.m_log, server.m_metrics, server.m_limits, server.m_paths, server.m_tls},
          m_signals(signals),
          m_listener(std::move(listener)),
          m_lanes(server.m_service, server.m_log, server.m_metrics) {
        server.m_metrics.mostConnections.Set(static_cast<double>(server.m_limits.connections));
        const std::size_t threads = std::clamp(std::thread::hardware_concurrency(), 2U, 4U);
        for (std::size_t i = 0; i < threads; ++i) {
            m_loops.push_back(std::make_unique<Loop>(m_setting, server.m_limits.connections / threads));
        }
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    void run(const std::function<void()>& onReady, const std::function<void()>& onTurn,
             const std::function<void()>& onStop) {
        std::vector<std::jthread> threads;
        try {
            for (const auto& loop : m_loops) {
                threads.emplace_back([&loop = *loop] { loop.run(); });
            }
            for (const auto& loop : m_loops) {
                loop->awaitStart();
            }
            onReady();
            takeConnections(onTurn);
        } catch (...) {
            m_setting.stop = Clock::now();
            throw;
        }
        m_setting.stop = Clock::now() + m_setting.limits.drain;
        m_listener.close();
        onStop();
        while (std::any_of(m_loops.begin(), m_loops.end(), [](const auto& loop) { return loop->isRunning(); })) {
            std::this_thread::sleep_for(kTick / 10);
            m_lanes.tick();
        }
    }

  private:
    /// Until the server is to stop. Does without Asio, which calls nobody back when there is no memory for a
    /// connection.
    void takeConnections(const std::function<void()>& onTurn) {
        std::array<pollfd, 2> waited{{{m_signals, POLLIN, 0}, {m_listener.get(), POLLIN, 0}}};
        for (bool canTake = true;;) {
            const bool isAny = ::poll(waited.data(), canTake ? 2 : 1, static_cast<int>(kTick.count())) > 0;
            try {
                if (isAny && waited[0].revents != 0 && !takeSignal()) {
                    return;
                }
                if (m_setting.tls != nullptr) {
                    m_setting.tls->tick();
                }
                m_lanes.tick();
                if (m_lanes.turn() &&
                    std::all_of(m_loops.begin(), m_loops.end(), [](const auto& loop) { return loop->turns(); })) {
                    onTurn();
                }
                canTake = takeThoseThatWait();
            } catch (const std::exception& error) {
                m_setting.log.failed("cannot take a connection", error);
                canTake = false;
            }
        }
    }

    /// False: the server is to stop.
    bool takeSignal() {
        signalfd_siginfo signal{};
        if (::read(m_signals, &signal, sizeof signal) != sizeof signal || signal.ssi_signo != SIGHUP) {
            return false;
        }
        m_setting.log.write(Topic::kNotice, "SIGHUP: reading anew what can be");
        if (m_setting.tls != nullptr) {
            m_setting.tls->reload();
        }
        return true;
    }

    /// False: there are no descriptors, or no memory, so it is no use to try again at once.
    bool takeThoseThatWait() {
        for (int i = 0; i < kTakeInTurn; ++i) {
            QelFileDescriptor socket = m_listener.accept();
            if (socket.isOpen()) {
                Loop& loop = **std::min_element(
                    m_loops.begin(), m_loops.end(),
                    [](const auto& left, const auto& right) { return left->load() < right->load(); });
                net::post(loop.context, [&loop, place = loop.place(), socket = std::move(socket)]() mutable {
                    loop.admit(std::move(socket), place);
                });
            } else if (const int problem = errno; problem == EAGAIN) {
                break;
            } else if (problem == EMFILE || problem == ENFILE || problem == ENOBUFS || problem == ENOMEM) {
                throw std::runtime_error(std::strerror(problem));
            }  // else the client has gone meanwhile
        }
        return true;
    }

    HttpSetting m_setting;
    const int m_signals;
    Listener m_listener;
    std::vector<std::unique_ptr<Loop>> m_loops;
    Lanes m_lanes;  // goes first, since its threads post to the loops
};

HttpServer::HttpServer(Service& service, Log& log, Metrics& metrics, const std::vector<std::string>& instances,
                       TlsInForce* tls, const HttpLimits& limits)
    : m_service(service), m_log(log), m_metrics(metrics), m_paths(pathsOf(instances)), m_tls(tls), m_limits(limits) {}

HttpServer::~HttpServer() = default;

void HttpServer::run(Listener listener, int signals, const std::function<void()>& onReady,
                     const std::function<void()>& onTurn, const std::function<void()>& onStop) {
    Running running(*this, std::move(listener), signals);
    running.run(onReady, onTurn, onStop);
}

}  // namespace dsessd
