#include "server/http/HttpConnection.h"

#include <openssl/crypto.h>
#include <poll.h>

#include <boost/asio/bind_allocator.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/network_v6.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/http/status.hpp>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "protocol/protocol.h"
#include "server/http/HttpRequest.h"
#include "server/log/Text.h"

namespace dsessd {

namespace {

namespace net = boost::asio;

/// Bytes that a client may still send after its connection is to be closed. They are read and dropped.
constexpr std::size_t kDiscardAtMost = 1'000'000;
/// What is written at a time, so that its deadline follows.
constexpr std::size_t kWriteAtMost = 65'536;
constexpr std::chrono::seconds kEndWithin{2};
constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr char kLastChunk[] = "0\r\n\r\n";
/// After this long it is worth asking whether the client still waits.
constexpr std::chrono::milliseconds kQuick{250};
/// How long a client that has closed its sending half is given, since it may still read.
constexpr std::chrono::seconds kForHalfClosed{1};

/// An IPv6 client usually has a whole network of 64 bits, so that network counts as one host.
std::string hostOf(const net::ip::address& address) {
    return address.is_v6() ? net::ip::network_v6(address.to_v6(), 64).canonical().to_string() : address.to_string();
}

/// One chunk of a body (RFC 9112, section 7.1), such as `5\r\nhello\r\n`.
std::string chunkOf(std::string_view bytes) {
    assert(!bytes.empty());  // an empty one would end the body
    std::array<char, 20> size{};
    std::string chunk(size.data(), std::to_chars(size.data(), size.data() + size.size(), bytes.size(), 16).ptr);
    return chunk.append("\r\n").append(bytes).append("\r\n");
}

}  // namespace

/// Gives Asio the memory for its pending operation. A connection has one at a time, so one block inside it suffices.
template <typename Element>
class HttpConnection::OperationAllocator {
  public:
    using value_type = Element;
    explicit OperationAllocator(OperationMemory& memory) noexcept : m_memory(&memory) {}
    template <typename Other>
    OperationAllocator(const OperationAllocator<Other>& other) noexcept : m_memory(other.m_memory) {}

    Element* allocate(std::size_t count) {
        const std::size_t bytes = count * sizeof(Element);
        if (bytes > m_memory->block.size() || std::exchange(m_memory->isUsed, true)) {
            return static_cast<Element*>(::operator new(bytes));
        }
        return reinterpret_cast<Element*>(m_memory->block.data());
    }
    void deallocate(Element* block, std::size_t) noexcept {
        if (reinterpret_cast<std::byte*>(block) == m_memory->block.data()) {
            m_memory->isUsed = false;
        } else {
            ::operator delete(block);
        }
    }
    bool operator==(const OperationAllocator&) const noexcept = default;

  private:
    template <typename>
    friend class OperationAllocator;
    OperationMemory* m_memory;
};

/// The completion token for an operation that a coroutine awaits. A failure goes into `error` and is not thrown.
auto HttpConnection::tellingIn(Error& error) {
    const net::use_awaitable_t<Executor> token;
    return net::redirect_error(net::bind_allocator(OperationAllocator<std::byte>(m_operation), token), error);
}

/// Takes the connection off the list of those that there are, however its coroutine ends.
class HttpConnection::Ending {
  public:
    explicit Ending(HttpConnection& connection) : m_connection(connection) {}
    Ending(const Ending&) = delete;
    Ending& operator=(const Ending&) = delete;
    ~Ending() {  // NOLINT(bugprone-exception-escape): closing and erasing do not throw
        m_connection.cutOff();
        m_connection.m_onEnd(m_connection);
    }

  private:
    HttpConnection& m_connection;
};

HttpConnection::HttpConnection(HttpSetting& setting, Context& context, QelFileDescriptor socket,
                               std::function<void(HttpConnection&)> onEnd)
    : m_setting(setting),
      m_context(context),
      m_socket(context),
      m_pause(context, Clock::time_point::max()),
      m_onEnd(std::move(onEnd)) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::system_error(errno, std::generic_category());
    }
    m_socket.assign(address.ss_family == AF_INET6 ? net::ip::tcp::v6() : net::ip::tcp::v4(), socket.get());
    static_cast<void>(socket.release());  // it is the other's now
    m_socket.non_blocking(true);
    Error ignored;
    m_socket.set_option(net::ip::tcp::no_delay(true), ignored);
    const auto remote = m_socket.remote_endpoint(ignored);
    m_peer.address = remote.address().to_string() + ":" + std::to_string(remote.port());
    m_peer.host = hostOf(remote.address());
    if (m_setting.tls != nullptr) {
        m_tlsContext = m_setting.tls->get();
        m_tls.emplace(m_socket, m_tlsContext->makeConnection(m_certificateProblem).release());
    }
    m_setting.metrics.acceptedConnections.Increment();
    m_setting.metrics.connections.Increment();
}

HttpConnection::~HttpConnection() {
    m_setting.metrics.connections.Decrement();
    OPENSSL_cleanse(m_buffer.data(), m_buffer.size());
}

void HttpConnection::start(bool isTurnedAway) {
    assert(m_socket.is_open() && m_doing == Doing::kIdle);
    net::co_spawn(m_context.get_executor(), live(shared_from_this(), isTurnedAway), net::detached);
}

/// The whole life of a connection. `self` keeps it until then. Whatever fails in it ends it, and nothing else.
HttpConnection::Awaitable<void> HttpConnection::live(std::shared_ptr<HttpConnection> self, bool isTurnedAway) {
    const Ending ending(*self);
    try {
        if (isTurnedAway) {
            if (!m_tls) {
                co_await refuse(503);
            }
        } else if (co_await shakeHands()) {
            while (!m_close && !isOver()) {
                co_await serve();
            }
        }
        if (!isOver()) {
            co_await closeGently();
        }
    } catch (const std::exception& error) {
        m_setting.log.failed("a connection ended in failure", error);
    }
}

HttpConnection::Awaitable<bool> HttpConnection::shakeHands() {
    if (!m_tls) {
        co_return true;
    }
    turnTo(Doing::kHandshake, m_setting.limits.request);
    Error error;
    co_await m_tls->async_handshake(net::ssl::stream_base::server, tellingIn(error));
    if (!error) {
        m_peer.certificate = peerText(m_tls->native_handle());
        co_return true;
    }
    const bool isLate = Clock::now() >= m_deadline;
    if (m_ended && !isLate) {
        co_return false;
    }
    m_setting.metrics.failedHandshakes.Increment();
    if (const Repeats::Reaction reaction = m_setting.failedHandshakes.count(m_peer.host); reaction.say) {
        const bool isOfTls = error.category() == net::error::get_ssl_category();
        const std::string why = isLate ? "it took too long"
                                : !m_certificateProblem.empty()
                                    ? harmless(m_certificateProblem, 1024)
                                    : tlsError(isOfTls ? static_cast<unsigned>(error.value()) : 0);
        m_setting.log.write(Topic::kAudit,
                            "TLS handshake failed: " + why + ", from " + m_peer.address + reaction.rest());
    }
    co_return false;
}

/// One request and its answer.
HttpConnection::Awaitable<void> HttpConnection::serve() {
    HttpRequest request(m_setting.paths);
    co_await receiveRequest(request);
    if (isOver()) {
        co_return;
    }
    if (m_timedOut || request.refusal() != 0) {
        co_await refuse(m_timedOut ? 408 : request.refusal());
        co_return;
    }
    m_close = m_close || !request.keepAlive();
    co_await answer(request);
    m_deadlines->leaveBy(Clock::now());  // of a listing that was not taken to its end no more is to be made
    m_deadlines.reset();
}

/// Until it is whole, refused or late.
HttpConnection::Awaitable<void> HttpConnection::receiveRequest(HttpRequest& request) {
    m_since = Clock::now();
    turnTo(Doing::kIdle, m_setting.limits.idle);
    while (!m_timedOut) {
        if (m_doing == Doing::kIdle && m_at < m_end) {
            turnTo(Doing::kReading, m_setting.limits.request);
        }
        const std::size_t used = request.take({m_buffer.data() + m_at, m_end - m_at});
        OPENSSL_cleanse(m_buffer.data() + m_at, used);
        m_at += used;
        if (request.done() || request.refusal() != 0) {
            co_return;
        }
        if (request.expectsContinue()) {
            request.continued();
            co_await send(kContinue);
        }
        if (used != 0 && m_at < m_end) {
            continue;
        }
        std::memmove(m_buffer.data(), m_buffer.data() + m_at, m_end - m_at);
        m_end -= std::exchange(m_at, 0);
        const std::size_t received = co_await receive(net::buffer(m_buffer) + m_end);
        m_end += received;
        if (isOver()) {
            co_return;
        }
    }
}

HttpConnection::Awaitable<void> HttpConnection::answer(HttpRequest& request) {
    m_since = Clock::now();
    turnTo(Doing::kWorking, Clock::duration::max());
    m_deadlines = std::make_shared<RequestDeadlines>();
    const auto wakeLater = [self = shared_from_this()] { net::post(self->m_context, [self] { self->wake(); }); };
    const auto job = m_setting.lanes.submit(request.takeBody(), m_peer, m_deadlines, wakeLater);
    while (!job->done() && !m_ended) {
        co_await pause();
    }
    if (m_ended) {
        co_return;
    }
    if (job->answer.delay.count() > 0) {
        turnTo(Doing::kHeldBack, job->answer.delay);
        while (Clock::now() < m_deadline && !m_ended) {
            co_await pause();
        }
    }
    const bool chunked = job->rest != nullptr && request.takesChunks();
    const std::string& text = job->answer.text;
    const auto length = job->rest == nullptr ? std::optional(text.size()) : std::nullopt;
    const std::string whole =
        headOf(job->answer.httpStatus, length, chunked, job->answer.lacksStore).append(chunked ? chunkOf(text) : text);
    beginWriting();
    co_await send(whole);
    if (job->rest != nullptr) {
        co_await sendRest(*job->rest, chunked);
    }
}

HttpConnection::Awaitable<void> HttpConnection::sendRest(Spool& rest, bool chunked) {
    std::string piece;
    while (!isOver()) {
        switch (rest.take(piece)) {
            case Spool::Next::kPiece:
                piece = chunked ? chunkOf(piece) : std::move(piece);
                co_await send(piece);
                break;
            case Spool::Next::kLater:
                m_since = Clock::now();
                turnTo(Doing::kWorking, Clock::duration::max());
                co_await pause();
                m_answerStart += Clock::now() - m_since;
                m_doing = Doing::kWriting;
                break;
            case Spool::Next::kEnd:
                co_await send(chunked ? kLastChunk : "");
                co_return;
            case Spool::Next::kBroken:
                cutOff();
        }
    }
}

HttpConnection::Awaitable<void> HttpConnection::refuse(int status) {
    m_setting.metrics.httpRefusals(status).Increment();
    m_close = true;
    beginWriting();
    const std::string head = headOf(status, 0, false);
    co_await send(head);
}

std::string HttpConnection::headOf(int status, std::optional<std::size_t> length, bool chunked, bool lacksStore) const {
    std::string head = "HTTP/1.1 " + std::to_string(status) + " ";
    head += std::string_view(boost::beast::http::obsolete_reason(static_cast<boost::beast::http::status>(status)));
    head += m_close ? "\r\nConnection: close" : "";
    if (lacksStore) {
        head.append("\r\n").append(protocol::kUnavailable).append(": ").append(protocol::kStore);
    }
    if (length != std::size_t(0)) {
        head.append("\r\nContent-Type: ").append(protocol::kContentType);
    }
    if (length) {
        head.append("\r\nContent-Length: ").append(std::to_string(*length));
    }
    return head.append(chunked ? "\r\nTransfer-Encoding: chunked\r\n\r\n" : "\r\n\r\n");
}

/// Closes so that the client still gets what was written: says that no more comes, then reads for a while what the
/// client is still sending. A connection with unread input would be reset, and its last output lost.
HttpConnection::Awaitable<void> HttpConnection::closeGently() {
    turnTo(Doing::kEnding, kEndWithin);
    Error ignored;
    if (m_tls && SSL_is_init_finished(m_tls->native_handle()) == 1) {
        co_await m_tls->async_shutdown(tellingIn(ignored));
    }
    m_socket.shutdown(Socket::shutdown_send, ignored);
    for (std::size_t discarded = 0; discarded < kDiscardAtMost && !isOver();) {
        const std::size_t bytes = co_await m_socket.async_read_some(net::buffer(m_buffer), tellingIn(m_error));
        discarded += bytes;
    }
}

/// Gives how many bytes came. 0: it failed (m_error), or it took too long (m_timedOut).
HttpConnection::Awaitable<std::size_t> HttpConnection::receive(net::mutable_buffer room) {
    std::size_t bytes = 0;
    if (m_tls) {
        bytes = co_await m_tls->async_read_some(room, tellingIn(m_error));
    } else {
        bytes = co_await m_socket.async_read_some(room, tellingIn(m_error));
    }
    if (m_timedOut && !m_ended) {
        m_error.clear();
    }
    co_return bytes;
}

HttpConnection::Awaitable<void> HttpConnection::send(std::string_view bytes) {
    while (!bytes.empty() && !isOver()) {
        m_deadline = m_doing == Doing::kWriting ? answerDeadline() : m_deadline;
        const auto piece = net::buffer(bytes.substr(0, kWriteAtMost));
        std::size_t sent = m_tls ? 0 : m_socket.write_some(piece, m_error);
        if (m_tls) {
            sent = co_await m_tls->async_write_some(piece, tellingIn(m_error));
        } else if (m_error == net::error::would_block) {
            sent = co_await m_socket.async_write_some(piece, tellingIn(m_error));
        }
        m_answerBytes += sent;
        bytes.remove_prefix(sent);
    }
}

/// Waits for a call of wake(). It may also return early, so the caller has to check its own condition and call again.
HttpConnection::Awaitable<void> HttpConnection::pause() {
    Error ignored;
    co_await m_pause.async_wait(tellingIn(ignored));
}

void HttpConnection::wake() {
    m_pause.cancel();
}

void HttpConnection::turnTo(Doing doing, Clock::duration mostTime) {
    m_doing = doing;
    m_deadline = mostTime == Clock::duration::max() ? Clock::time_point::max() : Clock::now() + mostTime;
}

void HttpConnection::beginWriting() {
    m_doing = Doing::kWriting;
    m_answerStart = Clock::now();
    m_answerBytes = 0;
}

HttpConnection::Clock::time_point HttpConnection::answerDeadline() const {
    const HttpLimits& limits = m_setting.limits;
    return std::min(Clock::now() + limits.stall,
                    m_answerStart + limits.answer + std::chrono::seconds(m_answerBytes / limits.bytesPerSecond));
}

void HttpConnection::tick(Clock::time_point now) {
    if (m_doing == Doing::kWorking) {
        if (now - m_since > kQuick && hasLeft()) {
            m_deadlines->leaveBy(now + kForHalfClosed);
        }
        wake();  // in case that there was no memory to say that there is more
    } else if (now >= m_deadline) {
        if (m_doing == Doing::kReading) {
            m_timedOut = true;
            m_deadline = Clock::time_point::max();
            Error ignored;
            m_socket.cancel(ignored);
        } else if (m_doing == Doing::kHeldBack) {
            wake();
        } else {
            cutOff();
        }
    }
}

bool HttpConnection::hasLeft() const {
    pollfd state{const_cast<Socket&>(m_socket).native_handle(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0;
}

bool HttpConnection::awaitsRequest() const {
    return m_doing == Doing::kHandshake || m_doing == Doing::kIdle || m_doing == Doing::kReading;
}

bool HttpConnection::mayMakeRoom() const {
    switch (m_doing) {
        case Doing::kHandshake:
        case Doing::kIdle:
        case Doing::kReading:
        case Doing::kHeldBack:
        case Doing::kWriting:
            return !m_close;
        case Doing::kWorking:
        case Doing::kEnding:
            return false;
    }
    std::abort();
}

void HttpConnection::takeNoMore() {
    m_close = true;
    if (awaitsRequest()) {
        Error ignored;
        m_socket.shutdown(Socket::shutdown_receive, ignored);
    } else if (m_doing != Doing::kWorking) {
        cutOff();
    }
}

void HttpConnection::stopBy(Clock::time_point moment) {
    m_close = true;
    if (m_doing == Doing::kIdle) {
        takeNoMore();
    } else if (m_deadlines != nullptr) {
        m_deadlines->stopBy(moment);
    }
}

void HttpConnection::cutOff() {
    if (std::exchange(m_ended, true)) {
        return;
    }
    if (m_deadlines != nullptr) {
        m_deadlines->leaveBy(Clock::now());
    }
    Error ignored;
    m_socket.close(ignored);
    wake();
}

}  // namespace dsessd
