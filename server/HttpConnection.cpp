#include "server/HttpConnection.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <poll.h>

#include <boost/asio/ip/network_v6.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/status.hpp>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "protocol/protocol.h"
#include "server/Tls.h"

namespace dsessd {

namespace {

namespace net = boost::asio;

constexpr std::size_t kDiscardAtMost = 1'000'000;
constexpr std::chrono::seconds kEndWithin{2};
/// After this long it is worth asking whether the client still waits.
constexpr std::chrono::milliseconds kQuick{250};
/// Who has half closed the connection may still read.
constexpr std::chrono::seconds kForHalfClosed{1};

/// Who has one IPv6 address has the whole network of it.
std::string hostOf(const net::ip::address& address) {
    return address.is_v6() ? net::ip::network_v6(address.to_v6(), 64).canonical().to_string() : address.to_string();
}

void appendChunk(std::string& out, std::string_view bytes) {
    std::array<char, 20> size{};
    out.append(size.data(), std::to_chars(size.data(), size.data() + size.size(), bytes.size(), 16).ptr);
    out.append("\r\n").append(bytes).append("\r\n");
}

}  // namespace

HttpConnection::HttpConnection(HttpSetting& setting, Context& context, Socket socket,
                               std::function<void(HttpConnection&)> onEnd)
    : m_setting(setting), m_context(context), m_socket(std::move(socket)), m_onEnd(std::move(onEnd)) {
    if (m_setting.tls != nullptr) {
        m_tls.emplace(m_socket, *m_setting.tls);
    }
}

HttpConnection::~HttpConnection() {
    OPENSSL_cleanse(m_buffer.data(), m_buffer.size());
}

/// Whatever happens to a connection goes through here: nothing does once it has ended, and exhausted memory ends it.
template <typename Action>
void HttpConnection::attempt(const Action& action) noexcept {
    if (m_ended) {
        return;
    }
    try {
        action();
    } catch (const std::exception& error) {
        m_setting.log.failed("a connection ended in failure", error);
        cutOff();
    }
}

/// What Asio calls later, with the connection kept until then.
template <typename Action>
auto HttpConnection::handler(Action action) {
    return [self = shared_from_this(), action = std::move(action)](const auto&... results) {
        self->attempt([&] { action(results...); });
    };
}

template <typename Action>
void HttpConnection::withStream(const Action& action) {
    if (m_tls) {
        action(*m_tls);
    } else {
        action(m_socket);
    }
}

void HttpConnection::become(Doing doing, Clock::duration mostTime) {
    m_doing = doing;
    m_deadline = mostTime == Clock::duration::max() ? Clock::time_point::max() : Clock::now() + mostTime;
}

void HttpConnection::start() {
    attempt([this] {
        Error ignored;
        m_socket.set_option(net::ip::tcp::no_delay(true), ignored);
        const auto remote = m_socket.remote_endpoint(ignored);
        m_peer.address = remote.address().to_string() + ":" + std::to_string(remote.port());
        m_peer.host = hostOf(remote.address());
        if (!m_tls) {
            awaitRequest();
            return;
        }
        become(Doing::kHandshake, m_setting.limits.request);
        m_tls->async_handshake(net::ssl::stream_base::server,
                               handler([this](const Error& error) { onHandshake(error); }));
    });
}

void HttpConnection::onHandshake(const Error& error) {
    if (!error) {
        m_peer.certificate = peerSubject(m_tls->native_handle());
        awaitRequest();
        return;
    }
    const bool isOfTls = error.category() == net::error::get_ssl_category();
    m_setting.log.write(Topic::kAudit,
                        "TLS handshake failed: " + tlsError(isOfTls ? static_cast<unsigned>(error.value()) : 0) +
                            ", from " + m_peer.address);
    become(Doing::kEnding, kEndWithin);
    discard();  // a reset would take the alert that says why with it
}

void HttpConnection::tick(Clock::time_point now) {
    if (m_doing == Doing::kWorking && now - m_since > kQuick && hasLeft()) {
        m_patience->leaveBy(now + kForHalfClosed);
    }
    attempt([&] {
        if (m_doing == Doing::kWorking && m_rest != nullptr) {
            writeMore();  // in case that there was no memory to say that there is more
        } else if (now >= m_deadline) {
            endWhatTakesTooLong();
        }
    });
}

void HttpConnection::endWhatTakesTooLong() {
    Error ignored;
    switch (m_doing) {
        case Doing::kReading:
            m_timedOut = true;
            m_deadline = Clock::time_point::max();
            m_socket.cancel(ignored);
            break;
        case Doing::kHeldBack:
            write();
            break;
        default:
            cutOff();
    }
}

bool HttpConnection::hasLeft() const {
    pollfd state{const_cast<Socket&>(m_socket).native_handle(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0;
}

void HttpConnection::letGo() {
    m_close = true;
    if (m_doing <= Doing::kReading) {
        Error ignored;
        m_socket.shutdown(Socket::shutdown_receive, ignored);
    } else if (m_doing != Doing::kWorking) {
        cutOff();
    }
}

void HttpConnection::stopBy(Clock::time_point moment) {
    m_close = true;
    if (m_doing == Doing::kIdle) {
        letGo();
    } else if (m_patience != nullptr) {
        m_patience->stopBy(moment);
    }
}

void HttpConnection::turnAway() {
    if (m_tls) {
        cutOff();
    } else {
        attempt([this] { refuse(503); });
    }
}

void HttpConnection::cutOff() {
    if (std::exchange(m_ended, true)) {
        return;
    }
    if (m_patience != nullptr) {
        m_patience->leaveBy(Clock::now());
    }
    m_rest.reset();
    Error ignored;
    m_socket.close(ignored);
    m_onEnd(*this);
}

void HttpConnection::awaitRequest() {
    m_since = Clock::now();
    m_request.emplace(m_setting.paths);
    if (m_at < m_end) {
        become(Doing::kReading, m_setting.limits.request);
        consume();
    } else {
        become(Doing::kIdle, m_setting.limits.idle);
        read();
    }
}

void HttpConnection::read() {
    withStream([this](auto& stream) {
        stream.async_read_some(net::buffer(m_buffer.data() + m_end, m_buffer.size() - m_end),
                               handler([this](const Error& error, std::size_t bytes) { onRead(error, bytes); }));
    });
}

void HttpConnection::onRead(const Error& error, std::size_t bytes) {
    if (m_timedOut) {
        refuse(408);
    } else if (error) {
        cutOff();
    } else {
        if (m_doing == Doing::kIdle) {
            become(Doing::kReading, m_setting.limits.request);
        }
        m_end += bytes;
        consume();
    }
}

void HttpConnection::consume() {
    HttpRequest& request = *m_request;
    while (m_at < m_end && !request.done() && request.refusal() == 0 && !request.expectsContinue()) {
        const std::size_t used = request.take({m_buffer.data() + m_at, m_end - m_at});
        OPENSSL_cleanse(m_buffer.data() + m_at, used);
        m_at += used;
        if (used == 0) {
            break;
        }
    }
    if (request.refusal() != 0) {
        refuse(request.refusal());
        return;
    }
    if (request.done()) {
        submit();
        return;
    }
    std::memmove(m_buffer.data(), m_buffer.data() + m_at, m_end - m_at);
    m_end -= std::exchange(m_at, 0);
    if (m_end == m_buffer.size()) {
        refuse(413);
    } else if (request.expectsContinue()) {
        m_out = "HTTP/1.1 100 Continue\r\n\r\n";
        request.continued();
        withStream([this](auto& stream) {
            net::async_write(stream, net::buffer(m_out),
                             handler([this](const Error& error, std::size_t) { error ? cutOff() : consume(); }));
        });
    } else {
        read();
    }
}

void HttpConnection::submit() {
    m_close = m_close || !m_request->keepAlive();
    m_since = Clock::now();
    become(Doing::kWorking, Clock::duration::max());
    m_patience = std::make_shared<Patience>();
    const auto onReply = [self = shared_from_this()](Answer answer, std::shared_ptr<Spool> rest) {
        net::post(self->m_context, [self, answer = std::move(answer), rest = std::move(rest)]() mutable {
            self->attempt([&] { self->onAnswer(std::move(answer), std::move(rest)); });
        });
    };
    const auto onMore = [self = shared_from_this()] {
        net::post(self->m_context, self->handler([self] {
            if (self->m_doing == Doing::kWorking) {
                self->writeMore();
            }
        }));
    };
    m_setting.dispatcher.submit(std::move(m_request->body), m_peer, m_patience, onReply, onMore);
}

void HttpConnection::onAnswer(Answer answer, std::shared_ptr<Spool> rest) {
    m_rest = std::move(rest);
    const bool chunked = m_rest != nullptr && m_request->takesChunks();
    beginAnswer(answer.httpStatus, answer.text, chunked);
    if (answer.delay.count() > 0) {
        become(Doing::kHeldBack, answer.delay);
    } else {
        write();
    }
}

void HttpConnection::refuse(int status) {
    m_close = true;
    beginAnswer(status, "", false);
    write();
}

void HttpConnection::beginAnswer(int status, std::string_view body, bool chunked) {
    m_out = "HTTP/1.1 " + std::to_string(status) + " ";
    m_out += std::string_view(boost::beast::http::obsolete_reason(static_cast<boost::beast::http::status>(status)));
    m_out += m_close ? "\r\nConnection: close" : "";
    if (!body.empty()) {
        m_out.append("\r\nContent-Type: ").append(protocol::kContentType);
    }
    if (chunked) {
        m_out += "\r\nTransfer-Encoding: chunked\r\n\r\n";
        appendChunk(m_out, body);
    } else {
        if (m_rest == nullptr) {
            m_out += "\r\nContent-Length: " + std::to_string(body.size());
        }
        m_out.append("\r\n\r\n").append(body);
    }
    m_answerStart = Clock::now();
    m_answerBytes = 0;
}

HttpConnection::Clock::time_point HttpConnection::answerDeadline() const {
    const HttpLimits& limits = m_setting.limits;
    return std::min(Clock::now() + limits.stall,
                    m_answerStart + limits.answer + std::chrono::seconds(m_answerBytes / limits.bytesPerSecond));
}

void HttpConnection::write() {
    become(Doing::kWriting, Clock::duration::max());
    m_deadline = answerDeadline();
    withStream([this](auto& stream) {
        const auto goOn = [self = shared_from_this()](const Error& error, std::size_t) -> std::size_t {
            self->m_deadline = self->answerDeadline();
            return error ? 0 : 65'536;
        };
        net::async_write(stream, net::buffer(m_out), goOn, handler([this](const Error& error, std::size_t bytes) {
                             m_answerBytes += bytes;
                             onWritten(error);
                         }));
    });
}

void HttpConnection::onWritten(const Error& error) {
    if (error) {
        cutOff();
    } else if (m_rest != nullptr) {
        writeMore();
    } else {
        endAnswer();
    }
}

void HttpConnection::writeMore() {
    const auto now = Clock::now();
    if (m_doing == Doing::kWorking) {
        m_answerStart += now - m_since;
    }
    std::string piece;
    m_out.clear();
    switch (m_rest->take(piece)) {
        case Spool::Next::kPiece:
            m_request->takesChunks() ? appendChunk(m_out, piece) : m_out.swap(piece);
            write();
            break;
        case Spool::Next::kLater:
            m_since = now;
            become(Doing::kWorking, Clock::duration::max());
            break;
        case Spool::Next::kEnd:
            m_rest.reset();
            m_out = m_request->takesChunks() ? "0\r\n\r\n" : "";
            write();
            break;
        case Spool::Next::kBroken:
            cutOff();
    }
}

void HttpConnection::endAnswer() {
    m_patience.reset();
    if (m_close) {
        closeGently();
    } else {
        awaitRequest();
    }
}

/// So that the client still gets what was written: says that no more comes, then reads what it is sending until it
/// stops, for a while.
void HttpConnection::closeGently() {
    become(Doing::kEnding, kEndWithin);
    if (m_tls) {
        m_tls->async_shutdown(handler([this](const Error&) { discard(); }));
    } else {
        discard();
    }
}

void HttpConnection::discard() {
    Error ignored;
    m_socket.shutdown(Socket::shutdown_send, ignored);
    m_socket.async_read_some(net::buffer(m_buffer), handler([this](const Error& error, std::size_t bytes) {
                                 m_discarded += bytes;
                                 if (error || m_discarded > kDiscardAtMost) {
                                     cutOff();
                                 } else {
                                     discard();
                                 }
                             }));
}

}  // namespace dsessd
