#include "server/HttpServer.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <thread>

#include "protocol/protocol.h"
#include "runtime/qel_ascii.h"

namespace dsessd {

namespace {

constexpr char kBusyAnswer[] = "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";

bool isJson(const std::string& contentType) {
    const std::string type = contentType.substr(0, contentType.find_first_of("; \t"));
    return qel_ascii_equal(type, protocol::kContentType);
}

std::string addressOf(const Connection& connection) {
    std::string host;
    int port = 0;
    connection.get_remote_ip_and_port(host, port);
    return host + ":" + std::to_string(port);
}

bool isChunked(const httplib::Request& request) {
    return request.has_header("Transfer-Encoding");
}

/// Nothing: not a length.
std::optional<std::size_t> contentLength(const httplib::Request& request) {
    const std::string text = request.get_header_value("Content-Length");
    std::size_t length = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), length);
    if (parsed.ec == std::errc::result_out_of_range) {
        return SIZE_MAX;
    }
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size()) {
        return std::nullopt;
    }
    return length;
}

/// Whether there is one way only to tell where the body ends.
bool isFramingClear(const httplib::Request& request) {
    if (isChunked(request)) {
        return request.get_header_value_count("Transfer-Encoding") == 1 && !request.has_header("Content-Length") &&
               qel_ascii_equal(request.get_header_value("Transfer-Encoding"), "chunked");
    }
    return !request.has_header("Content-Length") ||
           (request.get_header_value_count("Content-Length") == 1 && contentLength(request).has_value());
}

}  // namespace

HttpServer::HttpServer(Service& service, Log& log, const std::vector<std::string>& instances, SSL_CTX* tls,
                       const HttpLimits& limits)
    : m_service(service), m_log(log), m_tls(tls), m_limits(limits) {
    for (const std::string& instance : instances) {
        for (const char* path : {protocol::kServicePath, protocol::kProxyServicePath}) {
            m_paths.push_back("/" + instance + path);
        }
    }
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        const int refusal = refusalOf(request);
        if (refusal == 0) {
            return HandlerResponse::Unhandled;
        }
        response.status = refusal;
        return HandlerResponse::Handled;
    });
    set_expect_100_continue_handler([this](const httplib::Request& request, httplib::Response& response) {
        const int refusal = refusalOf(request);
        if (refusal == 0) {
            return 100;
        }
        response.status = refusal;
        return refusal;
    });
    // The library would promise to keep connections open that end here.
    set_post_routing_handler(
        [](const httplib::Request&, httplib::Response& response) { response.headers.erase("Keep-Alive"); });
    set_exception_handler([this](const httplib::Request&, httplib::Response& response, const std::exception_ptr&) {
        m_log.write(Topic::kFailure, "a request ended in an unexpected exception");
        response.status = 500;
    });
    Post(".*", [this](const httplib::Request& request, httplib::Response& response,
                      const httplib::ContentReader& readBody) { answer(request, response, readBody); });
}

int HttpServer::refusalOf(const httplib::Request& request) const {
    if (!isFramingClear(request)) {
        return 400;
    }
    if (std::find(m_paths.begin(), m_paths.end(), request.path) == m_paths.end()) {
        return 404;
    }
    if (request.method != "POST") {
        return 405;
    }
    if (!isJson(request.get_header_value("Content-Type")) || request.has_header("Content-Encoding")) {
        return 415;
    }
    if (!isChunked(request) && contentLength(request).value_or(0) > protocol::kMaxRequestBytes) {
        return 413;
    }
    return 0;
}

void HttpServer::admit(httplib::Request& request, const Connection& connection, bool& close) const {
    request.ssl = connection.ssl();
    // The library would compress, and answer in parts, when asked to.
    request.headers.erase("Accept-Encoding");
    request.ranges.clear();
    if (refusalOf(request) == 0 && !isChunked(request)) {
        return;
    }
    // Of a body that is not read to its end something is left over that is no request.
    request.headers.erase("Connection");
    request.set_header("Connection", "close");
    close = true;
}

void HttpServer::answer(const httplib::Request& request, httplib::Response& response,
                        const httplib::ContentReader& readBody) {
    SecretBuffer body;
    bool tooLong = false;
    const auto take = [&](const char* bytes, std::size_t size) {
        tooLong = size > protocol::kMaxRequestBytes - body.size();
        if (!tooLong) {
            body.insert(body.end(), bytes, bytes + size);
        }
        return !tooLong;
    };
    const bool hasBody = isChunked(request) || request.has_header("Content-Length");
    if (hasBody && !readBody(take)) {
        response.status = tooLong ? 413 : 400;
        return;
    }
    const Peer peer{request.remote_addr + ":" + std::to_string(request.remote_port), peerSubject(request.ssl)};
    Answer answer = m_service.handle(body, peer);
    response.status = answer.httpStatus;
    send(response, std::move(answer));
}

void HttpServer::send(httplib::Response& response, Answer answer) {
    if (!answer.rest) {
        response.set_content(answer.text, protocol::kContentType);
        return;
    }
    const auto shared = std::make_shared<Answer>(std::move(answer));
    response.set_chunked_content_provider(protocol::kContentType, [this, shared](std::size_t, httplib::DataSink& sink) {
        try {
            if (shared->text.empty()) {
                sink.done();
                return true;
            }
            const bool sent = sink.write(shared->text.data(), shared->text.size());
            if (sent) {
                shared->text = shared->rest->next();
            }
            return sent;
        } catch (const StoreError& failure) {
            m_log.write(Topic::kFailure, std::string("a listing broke off: ") + failure.what());
            return false;
        }
    });
}

void HttpServer::run(Listener listener, int stopFd) {
    // The library ends chunked answers early while it believes that nothing listens.
    svr_sock_ = listener.fd();
    std::array<pollfd, 2> ready{{{stopFd, POLLIN, 0}, {listener.fd(), POLLIN, 0}}};
    while (ready[0].revents == 0) {
        if (::poll(ready.data(), ready.size(), -1) > 0 && ready[1].revents != 0) {
            acceptOne(listener.fd());
        }
    }
    listener.close();
    drain();
}

Connection* HttpServer::longestWaiting(Connection::Waiting kind) const {
    Connection* longest = nullptr;
    for (Connection* candidate : m_connections) {
        if (candidate->waiting() == kind && (longest == nullptr || candidate->began() < longest->began())) {
            longest = candidate;
        }
    }
    return longest;
}

bool HttpServer::makeRoom(std::unique_lock<std::mutex>& lock) {
    const auto deadline = Connection::Clock::now() + m_limits.room;
    while (m_threads >= m_limits.connections) {
        if (Connection::Clock::now() > deadline) {
            return false;
        }
        // Whoever is slow to take an answer is more likely to be honest than whoever is slow to ask.
        Connection* longest = longestWaiting(Connection::Waiting::kToRead);
        if (longest == nullptr) {
            longest = longestWaiting(Connection::Waiting::kToWrite);
        }
        if (longest != nullptr) {
            longest->cutOff();
        }
        m_ended.wait_for(lock, std::chrono::milliseconds(10));
    }
    return true;
}

void HttpServer::acceptOne(int listeningFd) {
    QelFileDescriptor socket(::accept4(listeningFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.isOpen()) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            m_log.write(Topic::kFailure, std::string("cannot take a connection: ") + std::strerror(errno));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return;
    }
    std::unique_lock lock(m_mutex);
    if (!makeRoom(lock)) {
        if (!std::exchange(m_saturated, true)) {
            m_log.write(Topic::kFailure, "busy with " + std::to_string(m_threads) + " connections, more are refused");
        }
        if (m_tls == nullptr) {
            ::send(socket.get(), kBusyAnswer, sizeof kBusyAnswer - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        }
        return;
    }
    m_saturated = false;
    try {
        std::thread([this, owned = std::move(socket)]() mutable { converse(std::move(owned)); }).detach();
        ++m_threads;
    } catch (const std::system_error& error) {
        m_log.write(Topic::kFailure, std::string("cannot start a thread for a connection: ") + error.what());
    }
}

HttpServer::Enrolment::Enrolment(HttpServer& server, Connection& connection) : m_server(server) {
    const std::lock_guard lock(server.m_mutex);
    m_entry = server.m_connections.insert(server.m_connections.end(), &connection);
}

HttpServer::Enrolment::~Enrolment() {
    const std::lock_guard lock(m_server.m_mutex);
    m_server.m_connections.erase(m_entry);
}

void HttpServer::converse(QelFileDescriptor socket) {
    try {
        Connection connection(std::move(socket), m_tls, m_limits.connection);
        const Enrolment enrolment(*this, connection);
        serveRequests(connection);
    } catch (const std::exception& error) {
        m_log.write(Topic::kFailure, std::string("a connection ended in failure: ") + error.what());
    }
    const std::lock_guard lock(m_mutex);
    --m_threads;
    m_ended.notify_all();
}

void HttpServer::serveRequests(Connection& connection) {
    if (!connection.handshake()) {
        m_log.write(Topic::kAudit, "TLS handshake failed: " + tlsError() + ", from " + addressOf(connection));
        connection.closeGently();  // a reset would take the alert that says why with it
        return;
    }
    bool close = false;
    while (!close && !m_stopping && connection.awaitRequest()) {
        const bool lastOne = m_stopping;
        bool understood = false;
        const bool answered = process_request(connection, lastOne, close, [&](httplib::Request& request) {
            understood = true;
            admit(request, connection, close);
        });
        close = close || lastOne || !understood || !answered;
    }
    if (connection.refusal() != 0) {
        connection.writeRefusal();
    }
    if (close) {
        connection.closeGently();
    }
}

void HttpServer::drain() {
    std::unique_lock lock(m_mutex);
    m_stopping = true;
    const auto deadline = Connection::Clock::now() + m_limits.drain;
    while (m_threads != 0) {
        const bool patient = Connection::Clock::now() < deadline;
        for (Connection* connection : m_connections) {
            if (!patient) {
                connection->cutOff();
            } else if (connection->idle()) {
                connection->stopReading();
            }
        }
        m_ended.wait_for(lock, std::chrono::milliseconds(50));
    }
}

}  // namespace dsessd
