#include "server/Connection.h"

#include <netdb.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace dsessd {

namespace {

constexpr std::size_t kDiscardAtMost = 1'000'000;
constexpr std::chrono::seconds kDiscardFor{2};

}  // namespace

Connection::Connection(QelFileDescriptor socket, SSL_CTX* tls, const ConnectionLimits& limits)
    : m_socket(std::move(socket)), m_limits(limits) {
    const int on = 1;
    ::setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    if (::getpeername(m_socket.get(), reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
        ::getnameinfo(reinterpret_cast<sockaddr*>(&peer), length, host.data(), host.size(), port.data(), port.size(),
                      NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
        m_peerHost = host.data();
        m_peerPort = std::atoi(port.data());
    }
    if (tls != nullptr) {
        m_ssl.reset(SSL_new(tls));
        if (!m_ssl || SSL_set_fd(m_ssl.get(), m_socket.get()) != 1) {
            throw std::runtime_error("TLS: " + tlsError());
        }
    }
}

Connection::~Connection() {
    OPENSSL_cleanse(m_buffer.data(), m_buffer.size());
}

bool Connection::wait(short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count() + 1;
        if (left <= 0) {
            m_timedOut = true;
            return false;
        }
        pollfd ready{m_socket.get(), events, 0};
        m_waitingFor = (events & POLLIN) != 0 ? Waiting::kToRead : Waiting::kToWrite;
        const int count = ::poll(&ready, 1, static_cast<int>(std::min<long>(left, INT_MAX)));
        m_waitingFor = Waiting::kNo;
        if (count > 0) {
            return true;
        }
        if (count < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool Connection::awaitTls(int result, Clock::time_point deadline) {
    switch (SSL_get_error(m_ssl.get(), result)) {
        case SSL_ERROR_WANT_READ:
            return wait(POLLIN, deadline);
        case SSL_ERROR_WANT_WRITE:
            return wait(POLLOUT, deadline);
        default:
            return false;
    }
}

bool Connection::handshake() {
    if (!m_ssl) {
        return true;
    }
    const auto deadline = Clock::now() + m_limits.request;
    for (;;) {
        ERR_clear_error();
        const int result = SSL_accept(m_ssl.get());
        if (result == 1) {
            return true;
        }
        if (!awaitTls(result, deadline)) {
            return false;
        }
    }
}

ssize_t Connection::receive(char* bytes, std::size_t size, Clock::time_point deadline) {
    for (;;) {
        if (m_ssl) {
            ERR_clear_error();
            const int got = SSL_read(m_ssl.get(), bytes, static_cast<int>(size));
            if (got > 0) {
                return got;
            }
            if (SSL_get_error(m_ssl.get(), got) == SSL_ERROR_ZERO_RETURN) {
                return 0;
            }
            if (!awaitTls(got, deadline)) {
                return -1;
            }
        } else {
            const ssize_t got = ::recv(m_socket.get(), bytes, size, 0);
            if (got >= 0) {
                return got;
            }
            if (errno != EINTR && (errno != EAGAIN || !wait(POLLIN, deadline))) {
                return -1;
            }
        }
    }
}

ssize_t Connection::send(const char* bytes, std::size_t size, Clock::time_point deadline) {
    for (;;) {
        if (m_ssl) {
            ERR_clear_error();
            const int put = SSL_write(m_ssl.get(), bytes, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
            if (put > 0) {
                return put;
            }
            if (!awaitTls(put, deadline)) {
                return -1;
            }
        } else {
            const ssize_t put = ::send(m_socket.get(), bytes, size, MSG_NOSIGNAL);
            if (put >= 0) {
                return put;
            }
            if (errno != EINTR && (errno != EAGAIN || !wait(POLLOUT, deadline))) {
                return -1;
            }
        }
    }
}

bool Connection::awaitRequest() {
    m_answerBytes = 0;
    m_requestBytes = 0;
    m_began = Clock::now();
    if (m_at == m_end) {
        m_idle = true;
        const ssize_t got = receive(m_buffer.data(), m_buffer.size(), Clock::now() + m_limits.idle);
        m_idle = false;
        if (got <= 0) {
            return false;
        }
        m_at = 0;
        m_end = static_cast<std::size_t>(got);
    }
    m_requestDeadline = Clock::now() + m_limits.request;
    return true;
}

void Connection::cutOff() {
    ::shutdown(m_socket.get(), SHUT_RDWR);
}

void Connection::stopReading() {
    ::shutdown(m_socket.get(), SHUT_RD);
}

void Connection::writeRefusal() {
    const std::string text = "HTTP/1.1 " + std::to_string(m_refusal) +
                             (m_refusal == 408 ? " Request Timeout" : " Payload Too Large") +
                             "\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    send(text.data(), text.size(), Clock::now() + m_limits.stall);
}

void Connection::closeGently() {
    if (m_ssl) {
        SSL_shutdown(m_ssl.get());
    }
    ::shutdown(m_socket.get(), SHUT_WR);
    const auto deadline = Clock::now() + kDiscardFor;
    for (std::size_t discarded = 0; discarded < kDiscardAtMost && wait(POLLIN, deadline);) {
        const ssize_t got = ::recv(m_socket.get(), m_buffer.data(), m_buffer.size(), 0);
        if (got <= 0) {
            break;
        }
        discarded += static_cast<std::size_t>(got);
    }
}

ssize_t Connection::read(char* bytes, std::size_t size) {
    if (m_refusal != 0) {
        return -1;
    }
    if (m_requestBytes >= m_limits.requestBytes) {
        m_refusal = 413;
        return -1;
    }
    if (m_at == m_end) {
        const ssize_t got = receive(m_buffer.data(), m_buffer.size(), m_requestDeadline);
        if (got <= 0) {
            if (m_timedOut) {
                m_refusal = 408;
            }
            return got;
        }
        m_at = 0;
        m_end = static_cast<std::size_t>(got);
    }
    const std::size_t count = std::min(size, m_end - m_at);
    std::memcpy(bytes, m_buffer.data() + m_at, count);
    OPENSSL_cleanse(m_buffer.data() + m_at, count);
    m_at += count;
    m_requestBytes += count;
    return static_cast<ssize_t>(count);
}

ssize_t Connection::write(const char* bytes, std::size_t size) {
    if (m_refusal != 0) {
        return -1;
    }
    const auto now = Clock::now();
    if (m_answerBytes == 0) {
        m_answerStart = now;
    }
    const auto whole = m_answerStart + m_limits.answer + std::chrono::seconds(m_answerBytes / m_limits.bytesPerSecond);
    const ssize_t put = send(bytes, size, std::min<Clock::time_point>(now + m_limits.stall, whole));
    if (put > 0) {
        m_answerBytes += static_cast<std::size_t>(put);
    }
    return put;
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
    ip = m_peerHost;
    port = m_peerPort;
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
    ip.clear();
    port = 0;
}

}  // namespace dsessd
