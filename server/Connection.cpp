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

Connection::Connection(Descriptor socket, SSL_CTX* tls, const ConnectionLimits& limits)
    : socket_(std::move(socket)), limits_(limits) {
    const int on = 1;
    ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    if (::getpeername(socket_.get(), reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
        ::getnameinfo(reinterpret_cast<sockaddr*>(&peer), length, host.data(), host.size(), port.data(), port.size(),
                      NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
        peerHost_ = host.data();
        peerPort_ = std::atoi(port.data());
    }
    if (tls != nullptr) {
        ssl_.reset(SSL_new(tls));
        if (!ssl_ || SSL_set_fd(ssl_.get(), socket_.get()) != 1)
            throw std::runtime_error("TLS: " + tlsError());
    }
}

Connection::~Connection() {
    OPENSSL_cleanse(buffer_.data(), buffer_.size());
}

bool Connection::wait(short events, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count() + 1;
        if (left <= 0) {
            timedOut_ = true;
            return false;
        }
        pollfd ready{socket_.get(), events, 0};
        waitingFor_ = (events & POLLIN) != 0 ? Waiting::toRead : Waiting::toWrite;
        const int count = ::poll(&ready, 1, static_cast<int>(std::min<long>(left, INT_MAX)));
        waitingFor_ = Waiting::no;
        if (count > 0)
            return true;
        if (count < 0 && errno != EINTR)
            return false;
    }
}

bool Connection::awaitTls(int result, Clock::time_point deadline) {
    switch (SSL_get_error(ssl_.get(), result)) {
        case SSL_ERROR_WANT_READ:
            return wait(POLLIN, deadline);
        case SSL_ERROR_WANT_WRITE:
            return wait(POLLOUT, deadline);
        default:
            return false;
    }
}

bool Connection::handshake() {
    if (!ssl_)
        return true;
    const auto deadline = Clock::now() + limits_.request;
    for (;;) {
        ERR_clear_error();
        const int result = SSL_accept(ssl_.get());
        if (result == 1)
            return true;
        if (!awaitTls(result, deadline))
            return false;
    }
}

ssize_t Connection::receive(char* bytes, std::size_t size, Clock::time_point deadline) {
    for (;;) {
        if (ssl_) {
            ERR_clear_error();
            const int got = SSL_read(ssl_.get(), bytes, static_cast<int>(size));
            if (got > 0)
                return got;
            if (SSL_get_error(ssl_.get(), got) == SSL_ERROR_ZERO_RETURN)
                return 0;
            if (!awaitTls(got, deadline))
                return -1;
        } else {
            const ssize_t got = ::recv(socket_.get(), bytes, size, 0);
            if (got >= 0)
                return got;
            if (errno != EINTR && (errno != EAGAIN || !wait(POLLIN, deadline)))
                return -1;
        }
    }
}

ssize_t Connection::send(const char* bytes, std::size_t size, Clock::time_point deadline) {
    for (;;) {
        if (ssl_) {
            ERR_clear_error();
            const int put = SSL_write(ssl_.get(), bytes, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
            if (put > 0)
                return put;
            if (!awaitTls(put, deadline))
                return -1;
        } else {
            const ssize_t put = ::send(socket_.get(), bytes, size, MSG_NOSIGNAL);
            if (put >= 0)
                return put;
            if (errno != EINTR && (errno != EAGAIN || !wait(POLLOUT, deadline)))
                return -1;
        }
    }
}

bool Connection::awaitRequest() {
    answerBytes_ = 0;
    requestBytes_ = 0;
    began_ = Clock::now();
    if (at_ == end_) {
        idle_ = true;
        const ssize_t got = receive(buffer_.data(), buffer_.size(), Clock::now() + limits_.idle);
        idle_ = false;
        if (got <= 0)
            return false;
        at_ = 0;
        end_ = static_cast<std::size_t>(got);
    }
    requestDeadline_ = Clock::now() + limits_.request;
    return true;
}

void Connection::cutOff() {
    ::shutdown(socket_.get(), SHUT_RDWR);
}

void Connection::stopReading() {
    ::shutdown(socket_.get(), SHUT_RD);
}

void Connection::writeRefusal() {
    const std::string text = "HTTP/1.1 " + std::to_string(refusal_) +
                             (refusal_ == 408 ? " Request Timeout" : " Payload Too Large") +
                             "\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    send(text.data(), text.size(), Clock::now() + limits_.stall);
}

void Connection::closeGently() {
    if (ssl_)
        SSL_shutdown(ssl_.get());
    ::shutdown(socket_.get(), SHUT_WR);
    const auto deadline = Clock::now() + kDiscardFor;
    for (std::size_t discarded = 0; discarded < kDiscardAtMost && wait(POLLIN, deadline);) {
        const ssize_t got = ::recv(socket_.get(), buffer_.data(), buffer_.size(), 0);
        if (got <= 0)
            break;
        discarded += static_cast<std::size_t>(got);
    }
}

ssize_t Connection::read(char* bytes, std::size_t size) {
    if (refusal_ != 0)
        return -1;
    if (requestBytes_ >= limits_.requestBytes) {
        refusal_ = 413;
        return -1;
    }
    if (at_ == end_) {
        const ssize_t got = receive(buffer_.data(), buffer_.size(), requestDeadline_);
        if (got <= 0) {
            if (timedOut_)
                refusal_ = 408;
            return got;
        }
        at_ = 0;
        end_ = static_cast<std::size_t>(got);
    }
    const std::size_t count = std::min(size, end_ - at_);
    std::memcpy(bytes, buffer_.data() + at_, count);
    OPENSSL_cleanse(buffer_.data() + at_, count);
    at_ += count;
    requestBytes_ += count;
    return static_cast<ssize_t>(count);
}

ssize_t Connection::write(const char* bytes, std::size_t size) {
    if (refusal_ != 0)
        return -1;
    const auto now = Clock::now();
    if (answerBytes_ == 0)
        answerStart_ = now;
    const auto whole = answerStart_ + limits_.answer + std::chrono::seconds(answerBytes_ / limits_.bytesPerSecond);
    const ssize_t put = send(bytes, size, std::min<Clock::time_point>(now + limits_.stall, whole));
    if (put > 0)
        answerBytes_ += static_cast<std::size_t>(put);
    return put;
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
    ip = peerHost_;
    port = peerPort_;
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
    ip.clear();
    port = 0;
}

}  // namespace dsessd
