#include "server/HttpServer.h"

#include <poll.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <set>
#include <thread>

#include "protocol/protocol.h"
#include "server/HttpConnection.h"

namespace dsessd {

namespace {

namespace net = boost::asio;
using Clock = HttpConnection::Clock;
using Error = boost::system::error_code;

constexpr std::chrono::milliseconds kTick{100};

/// The connections of one thread. All of it belongs to that thread, unless it says otherwise.
class Loop {
  public:
    Loop(HttpSetting& setting, std::size_t most) : m_setting(setting), m_most(most) {}

    HttpConnection::Context context{1};
    /// Stands for a connection that is here or on its way. For any thread.
    std::shared_ptr<void> place() const { return m_place; }
    long load() const { return m_place.use_count(); }

    /// Until the server stops and the last connection has ended. `onTick` is called every now and then.
    void run(const std::function<void()>& onTick) {
        const auto work = net::make_work_guard(context);
        while (m_setting.stop.load() == Clock::time_point::max() || !m_connections.empty()) {
            try {
                context.run_for(kTick);
                tick();
                onTick();
            } catch (const std::exception& error) {
                m_setting.log.failed("what was to be done for connections failed", error);
            }
        }
    }

    void admit(HttpConnection::Socket socket, const std::shared_ptr<void>& place) {
        const bool stopping = m_setting.stop.load() != Clock::time_point::max();
        const bool refused = stopping || (m_connections.size() >= m_most && !makeRoom());
        const auto connection = std::make_shared<HttpConnection>(
            m_setting, context, std::move(socket),
            [this, place](HttpConnection& ended) { m_connections.erase(ended.shared_from_this()); });
        m_connections.insert(connection);
        if (!refused) {
            m_saturated = false;
            connection->start();
            return;
        }
        if (!stopping && !std::exchange(m_saturated, true)) {
            m_setting.log.write(Topic::kFailure,
                                "busy with " + std::to_string(m_connections.size()) + " connections, more are refused");
        }
        connection->turnAway();
    }

  private:
    template <typename Action>
    void forEach(Action action) {
        for (auto next = m_connections.begin(); next != m_connections.end();) {
            const auto connection = *next++;  // it may remove itself
            action(*connection);
        }
    }

    void tick() {
        const auto now = Clock::now();
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

    /// Who is slow to take an answer is more likely to be honest than who is slow to ask.
    bool makeRoom() {
        const auto longest = [&](HttpConnection::Doing first, HttpConnection::Doing last) {
            HttpConnection* found = nullptr;
            for (const auto& candidate : m_connections) {
                const auto doing = candidate->doing();
                if (!candidate->isLeaving() && first <= doing && doing <= last &&
                    (found == nullptr || candidate->since() < found->since())) {
                    found = candidate.get();
                }
            }
            return found;
        };
        using Doing = HttpConnection::Doing;
        HttpConnection* leaving = longest(Doing::kHandshake, Doing::kReading);
        if (leaving == nullptr) {
            leaving = longest(Doing::kHeldBack, Doing::kWriting);
        }
        // Those who were told to leave still count until they have.
        if (leaving == nullptr || m_connections.size() >= 2 * m_most) {
            return false;
        }
        leaving->letGo();
        return true;
    }

    HttpSetting& m_setting;
    const std::size_t m_most;
    const std::shared_ptr<void> m_place = std::make_shared<char>();
    std::set<std::shared_ptr<HttpConnection>> m_connections;
    /// Whether connections are being refused, so that the log says it once.
    bool m_saturated = false;
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

/// What there is while the server runs.
class HttpServer::Running {
  public:
    Running(HttpServer& server, Listener listener, int stopFd, const std::function<void()>& onStop)
        : m_setting{m_dispatcher, server.m_log, server.m_limits, server.m_paths, nullptr},
          m_stopFd(stopFd),
          m_onStop(onStop),
          m_dispatcher(server.m_service, server.m_log) {
        if (server.m_tls != nullptr) {
            m_setting.tls = std::make_unique<net::ssl::context>(server.m_tls.release());
        }
        const std::size_t threads = std::clamp(std::thread::hardware_concurrency(), 2U, 4U);
        for (std::size_t i = 0; i < threads; ++i) {
            m_loops.push_back(std::make_unique<Loop>(m_setting, server.m_limits.connections / threads));
        }
        m_acceptor.emplace(m_loops.front()->context, listener.isV6() ? net::ip::tcp::v6() : net::ip::tcp::v4(),
                           listener.release());
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    void run() {
        std::vector<std::jthread> threads;
        try {
            for (std::size_t i = 1; i < m_loops.size(); ++i) {
                threads.emplace_back([&loop = *m_loops[i]] { loop.run([] {}); });
            }
        } catch (...) {
            m_setting.stop = Clock::now();
            throw;
        }
        accept();
        m_loops.front()->run([this] { tick(); });
    }

  private:
    void tick() {
        pollfd state{m_stopFd, POLLIN, 0};
        if (m_acceptor->is_open() && ::poll(&state, 1, 0) > 0) {
            m_setting.stop = Clock::now() + m_setting.limits.drain;
            m_acceptor->close();
            m_onStop();
        }
        m_dispatcher.tick();
        accept();
    }

    /// At each tick too, since it pauses when there are no descriptors or no memory.
    void accept() {
        if (m_accepting || !m_acceptor->is_open()) {
            return;
        }
        Loop& loop = **std::min_element(m_loops.begin(), m_loops.end(), [](const auto& left, const auto& right) {
            return left->load() < right->load();
        });
        m_acceptor->async_accept(loop.context, [this, &loop](const Error& error, HttpConnection::Socket socket) {
            m_accepting = false;
            if (!error) {
                net::post(loop.context, [&loop, place = loop.place(), socket = std::move(socket)]() mutable {
                    loop.admit(std::move(socket), place);
                });
            } else if (error != net::error::connection_aborted && error != net::error::operation_aborted) {
                m_setting.log.write(Topic::kFailure, "cannot take a connection: " + error.message());
                return;
            }
            accept();
        });
        m_accepting = true;
    }

    HttpSetting m_setting;
    const int m_stopFd;
    const std::function<void()>& m_onStop;
    std::vector<std::unique_ptr<Loop>> m_loops;
    std::optional<net::basic_socket_acceptor<net::ip::tcp, net::io_context::executor_type>> m_acceptor;
    bool m_accepting = false;
    Dispatcher m_dispatcher;  // goes first, since its threads post to the loops
};

HttpServer::HttpServer(Service& service, Log& log, const std::vector<std::string>& instances, SslContext tls,
                       const HttpLimits& limits)
    : m_service(service), m_log(log), m_paths(pathsOf(instances)), m_tls(std::move(tls)), m_limits(limits) {}

HttpServer::~HttpServer() = default;

void HttpServer::run(Listener listener, int stopFd, const std::function<void()>& onStop) {
    Running(*this, std::move(listener), stopFd, onStop).run();
}

}  // namespace dsessd
