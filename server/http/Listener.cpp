#include "server/http/Listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace dsessd {

namespace {

struct HostAndPort {
    std::string host;
    std::string port;
};

HostAndPort split(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    const std::string_view port = colon == std::string_view::npos ? "" : text.substr(colon + 1);
    std::string_view host = text.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    unsigned short number = 0;
    const auto parsed = std::from_chars(port.data(), port.data() + port.size(), number);
    const bool isNumber = !port.empty() && parsed.ec == std::errc() && parsed.ptr == port.data() + port.size();
    if (!isNumber || host.empty() || (!bracketed && host.find(':') != std::string_view::npos)) {
        throw std::runtime_error("an address to listen on is HOST:PORT, such as 127.0.0.1:8080 or [::1]:8080, not " +
                                 std::string(text));
    }
    return {std::string(host), std::string(port)};
}

QelFileDescriptor bindTo(const addrinfo& address) {
    QelFileDescriptor socket(::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!socket.isOpen() || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(socket.get(), address.ai_addr, address.ai_addrlen) != 0) {
        return QelFileDescriptor();
    }
    return socket;
}

unsigned portOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error(std::string("the port cannot be told: ") + std::strerror(errno));
    }
    // The port lies at the same place in both families.
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

[[noreturn]] void fail(std::string_view hostAndPort, int error) {
    throw std::runtime_error("cannot listen on " + std::string(hostAndPort) + ": " + std::strerror(error));
}

}  // namespace

Listener::Listener(std::string_view hostAndPort) {
    const HostAndPort wanted = split(hostAndPort);
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int code = ::getaddrinfo(wanted.host.c_str(), wanted.port.c_str(), &hints, &found); code != 0) {
        throw std::runtime_error("no address for " + wanted.host + ": " + gai_strerror(code));
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, ::freeaddrinfo);
    int error = 0;
    for (const addrinfo* address = found; address != nullptr && !m_socket.isOpen(); address = address->ai_next) {
        m_socket = bindTo(*address);
        error = errno;
    }
    if (!m_socket.isOpen()) {
        fail(hostAndPort, error);
    }
    m_address = std::string(hostAndPort.substr(0, hostAndPort.rfind(':') + 1)) + std::to_string(portOf(m_socket.get()));
}

void Listener::open() {
    if (::listen(m_socket.get(), SOMAXCONN) != 0) {
        fail(m_address, errno);
    }
}

QelFileDescriptor Listener::accept() {
    return QelFileDescriptor(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
}

}  // namespace dsessd
