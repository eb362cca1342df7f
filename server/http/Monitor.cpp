#include "server/http/Monitor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/status.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace dsessd {

namespace {

namespace http = boost::beast::http;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostPeers = 32;
constexpr std::size_t kMaxHeadBytes = 8'192;
/// How long a connection may last, from its acceptance on.
constexpr std::chrono::seconds kPeerHas{5};
constexpr std::chrono::milliseconds kTick{100};
constexpr char kText[] = "text/plain; charset=utf-8";
constexpr char kMetricsText[] = "text/plain; version=0.0.4; charset=utf-8";

struct Reply {
    int status;
    std::string text;
    const char* type = kText;
};

Reply health(Health::State state) {
    switch (state) {
        case Health::State::kOk:
            return {200, "ok\n"};
        case Health::State::kNoStore:
            return {503, "store: it cannot be used or does not answer; the log says more\n"};
        case Health::State::kReadOnly:
            return {503, "read-only: the store takes no changes; the log says why\n"};
        case Health::State::kStopping:
            return {503, "stopping: requests in progress are finished, and no others are taken\n"};
    }
    return {500, "unknown\n"};
}

Reply replyTo(http::verb method, std::string_view target, const Metrics& metrics) {
    const std::string_view path = target.substr(0, target.find('?'));
    const bool isHealth = path == "/healthz";
    if (!isHealth && path != "/metrics") {
        return {404, "There are only /healthz and /metrics here.\n"};
    }
    if (method != http::verb::get && method != http::verb::head) {
        return {405, "Only GET and HEAD are answered here.\n"};
    }
    return isHealth ? health(metrics.health.state()) : Reply{200, metrics.text(), kMetricsText};
}

std::string written(const Reply& reply, bool withText) {
    std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " ";
    text += std::string_view(http::obsolete_reason(static_cast<http::status>(reply.status)));
    text.append("\r\nConnection: close\r\nContent-Type: ").append(reply.type);
    text.append("\r\nContent-Length: ").append(std::to_string(reply.text.size()));
    text.append(reply.status == 405 ? "\r\nAllow: GET, HEAD\r\n\r\n" : "\r\n\r\n");
    return withText ? text + reply.text : text;
}

}  // namespace

/// One connection: its head is read, it is answered, then what it still sends is dropped until it closes.
class Monitor::Peer {
  public:
    explicit Peer(QelFileDescriptor socket) : m_socket(std::move(socket)) {}

    pollfd waitsFor() const {
        return {m_socket.get(), static_cast<short>(m_sent < m_answer.size() ? POLLOUT : POLLIN), 0};
    }
    bool isLate() const { return Clock::now() > m_end; }

    /// Reads or sends what it can without waiting. False: the connection is over.
    bool goOn(const Metrics& metrics) {
        const bool isAnswered = !m_answer.empty();
        if (!isAnswered || m_sent == m_answer.size()) {
            const std::size_t at = isAnswered ? 0 : m_bytes;
            const ssize_t got = ::recv(m_socket.get(), m_head.data() + at, m_head.size() - at, 0);
            if (got <= 0) {
                return got < 0 && (errno == EAGAIN || errno == EINTR);
            }
            if (isAnswered) {
                return true;
            }
            m_bytes += static_cast<std::size_t>(got);
            m_answer = answer(metrics);
        }
        return m_answer.empty() || send();
    }

  private:
    /// Empty: there is no whole head yet.
    std::string answer(const Metrics& metrics) const {
        http::request_parser<http::empty_body> parser;
        parser.header_limit(kMaxHeadBytes + 1);  // so that it does not say what is too long
        boost::beast::error_code error;
        parser.put(boost::asio::buffer(m_head.data(), m_bytes), error);
        if (parser.is_header_done()) {
            const auto& head = parser.get();
            const std::string_view target(head.target().data(), head.target().size());
            return written(replyTo(head.method(), target, metrics), head.method() != http::verb::head);
        }
        if (error != http::error::need_more) {
            return written({400, "This is no request of HTTP.\n"}, true);
        }
        return m_bytes < m_head.size() ? "" : written({431, "The head of the request is too long.\n"}, true);
    }

    bool send() {
        const ssize_t sent =
            ::send(m_socket.get(), m_answer.data() + m_sent, m_answer.size() - m_sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        m_sent += static_cast<std::size_t>(sent);
        return m_sent < m_answer.size() || ::shutdown(m_socket.get(), SHUT_WR) == 0;
    }

    QelFileDescriptor m_socket;
    const Clock::time_point m_end = Clock::now() + kPeerHas;
    std::array<char, kMaxHeadBytes> m_head{};
    std::size_t m_bytes = 0;
    std::string m_answer;
    std::size_t m_sent = 0;
};

Monitor::Monitor(Listener listener, const Metrics& metrics, Log& log)
    : m_listener(std::move(listener)), m_metrics(metrics), m_log(log), m_end(::eventfd(0, EFD_CLOEXEC)) {
    if (!m_end.isOpen()) {
        throw std::runtime_error(std::string("no descriptor for the monitor: ") + std::strerror(errno));
    }
    m_listener.open();
    m_thread = std::thread([this] { run(); });
}

Monitor::~Monitor() {
    ::eventfd_write(m_end.get(), 1);
    m_thread.join();
}

void Monitor::run() noexcept {
    std::list<Peer> peers;
    std::array<pollfd, kMostPeers + 2> waited{};
    for (bool canTake = true;;) {
        waited[0] = {m_end.get(), POLLIN, 0};
        waited[1] = {canTake ? m_listener.get() : -1, POLLIN, 0};
        std::transform(peers.begin(), peers.end(), waited.begin() + 2,
                       [](const Peer& peer) { return peer.waitsFor(); });
        const bool mayRest = canTake && peers.empty();
        static_cast<void>(::poll(waited.data(), peers.size() + 2, mayRest ? -1 : static_cast<int>(kTick.count())));
        if (waited[0].revents != 0) {
            return;
        }
        std::size_t at = 2;
        for (auto next = peers.begin(); next != peers.end();) {
            const auto peer = next++;
            const bool isReady = waited[at++].revents != 0;
            if (peer->isLate() || (isReady && !goOn(*peer))) {
                peers.erase(peer);
            }
        }
        canTake = waited[1].revents == 0 || take(peers);
    }
}

/// False: there are no descriptors, or no memory, so it is no use to try again at once.
bool Monitor::take(std::list<Peer>& peers) noexcept {
    try {
        for (std::size_t i = 0; i < kMostPeers; ++i) {
            QelFileDescriptor socket = m_listener.accept();
            if (!socket.isOpen()) {
                return errno == EAGAIN;
            }
            if (peers.size() == kMostPeers) {
                peers.pop_front();
            }
            peers.emplace_back(std::move(socket));
            if (!goOn(peers.back())) {
                peers.pop_back();
            }
        }
        return true;
    } catch (const std::exception& error) {
        m_log.failed("the monitor cannot take a connection", error);
        return false;
    }
}

/// False: the connection is over.
bool Monitor::goOn(Peer& peer) noexcept {
    try {
        return peer.goOn(m_metrics);
    } catch (const std::exception& error) {
        m_log.failed("the monitor cannot answer", error);
        return false;
    }
}

}  // namespace dsessd
