#include "admin/client/Connecting.h"

#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "runtime/QelFileDescriptor.h"

namespace olmdsess {

namespace {

using net::experimental::awaitable_operators::operator||;

constexpr std::chrono::milliseconds kNextAddressAfter{250};

struct AddressListDeleter {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};

/// A question to the system about a name. Whoever asks and the thread that waits for the answer own it together.
class Lookup {
  public:
    Lookup(std::string host, std::string port)
        : m_host(std::move(host)), m_port(std::move(port)), m_answered(eventfd(0, EFD_CLOEXEC)) {
        if (!m_answered.isOpen()) {
            throw std::bad_alloc();
        }
    }

    /// Asks, and makes the descriptor readable once there is an answer.
    void ask() noexcept {
        addrinfo wanted{};
        wanted.ai_socktype = SOCK_STREAM;
        addrinfo* list = nullptr;
        const int error = getaddrinfo(m_host.c_str(), m_port.c_str(), &wanted, &list);
        {
            const std::lock_guard lock(m_mutex);
            m_error = error;
            m_list.reset(error == 0 ? list : nullptr);
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(m_answered.get(), &one, sizeof(one));
    }

    int descriptor() const { return m_answered.get(); }

    /// The answer. Throws as lookUp() does.
    std::vector<tcp::endpoint> addresses() const {
        const std::lock_guard lock(m_mutex);
        if (m_error == EAI_MEMORY) {
            throw std::bad_alloc();
        }
        std::vector<tcp::endpoint> found;
        for (const addrinfo* entry = m_list.get(); entry != nullptr; entry = entry->ai_next) {
            tcp::endpoint endpoint;
            if (entry->ai_addrlen <= endpoint.capacity()) {
                std::memcpy(endpoint.data(), entry->ai_addr, entry->ai_addrlen);
                endpoint.resize(entry->ai_addrlen);
                found.push_back(endpoint);
            }
        }
        if (found.empty()) {
            throw boost::system::system_error(net::error::host_not_found);
        }
        return found;
    }

  private:
    const std::string m_host;
    const std::string m_port;
    const QelFileDescriptor m_answered;
    mutable std::mutex m_mutex;
    int m_error = 0;                                       // guarded by m_mutex
    std::unique_ptr<addrinfo, AddressListDeleter> m_list;  // guarded by m_mutex
};

/// Starts the lookup on a thread that gets no signals: they are for the threads of the program. Throws std::bad_alloc.
void start(const std::shared_ptr<Lookup>& lookup) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread([lookup] { lookup->ask(); }).detach();
    } catch (const std::exception&) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw std::bad_alloc();
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

/// The system's order, but with IPv6 and IPv4 in turns (RFC 8305, section 4): when one of them leads nowhere, the other
/// has its turn soon.
std::vector<tcp::endpoint> inTurns(const std::vector<tcp::endpoint>& addresses) {
    std::vector<tcp::endpoint> result;
    std::vector<tcp::endpoint> others;
    const bool isV6First = addresses.front().address().is_v6();
    for (const tcp::endpoint& address : addresses) {
        (address.address().is_v6() == isV6First ? result : others).push_back(address);
    }
    for (std::size_t index = 0; index < others.size(); ++index) {
        const std::size_t place = std::min(2 * index + 1, result.size());
        result.insert(result.begin() + static_cast<std::ptrdiff_t>(place), others[index]);
    }
    return result;
}

/// Connects, and lets the wait for the next address's turn end when that fails.
net::awaitable<tcp::socket> connect(const tcp::endpoint& address, net::steady_timer& nextTurn, ErrorCode& problem) {
    tcp::socket socket(co_await net::this_coro::executor);
    const auto [error] = co_await socket.async_connect(address, net::as_tuple(net::use_awaitable));
    if (error) {
        problem = error;
        nextTurn.expires_at(std::chrono::steady_clock::time_point::min());
        throw boost::system::system_error(error);
    }
    co_return socket;
}

net::awaitable<tcp::socket> connectFrom(std::span<const tcp::endpoint> addresses, ErrorCode& problem);

net::awaitable<tcp::socket> connectInTurn(std::span<const tcp::endpoint> addresses, net::steady_timer& turn,
                                          ErrorCode& problem) {
    co_await turn.async_wait(net::as_tuple(net::use_awaitable));
    co_return co_await connectFrom(addresses, problem);
}

net::awaitable<tcp::socket> connectFrom(std::span<const tcp::endpoint> addresses, ErrorCode& problem) {
    net::steady_timer nextTurn(co_await net::this_coro::executor, kNextAddressAfter);
    if (addresses.size() == 1) {
        co_return co_await connect(addresses.front(), nextTurn, problem);
    }
    auto connected = co_await (connect(addresses.front(), nextTurn, problem) ||
                               connectInTurn(addresses.subspan(1), nextTurn, problem));
    co_return std::visit([](auto& socket) { return std::move(socket); }, connected);
}

}  // namespace

net::awaitable<std::vector<tcp::endpoint>> lookUp(const std::string& host, const std::string& port) {
    ErrorCode notAnAddress;
    const net::ip::address address = net::ip::make_address(host, notAnAddress);
    if (!notAnAddress) {
        co_return std::vector{tcp::endpoint(address, static_cast<std::uint16_t>(std::stoi(port)))};
    }
    const auto lookup = std::make_shared<Lookup>(host, port);
    start(lookup);
    // A descriptor of our own: the thread may still write to the other one when this wait has been left.
    QelFileDescriptor copy(fcntl(lookup->descriptor(), F_DUPFD_CLOEXEC, 0));
    if (!copy.isOpen()) {
        throw std::bad_alloc();
    }
    net::posix::stream_descriptor answered(co_await net::this_coro::executor, copy.release());
    co_await answered.async_wait(net::posix::stream_descriptor::wait_read, net::use_awaitable);
    co_return inTurns(lookup->addresses());
}

net::awaitable<tcp::socket> connectToFirst(std::span<const tcp::endpoint> addresses) {
    ErrorCode problem;
    try {
        co_return co_await connectFrom(addresses, problem);
    } catch (const std::exception&) {
        if (!problem) {
            throw std::bad_alloc();
        }
        throw boost::system::system_error(problem);
    }
}

}  // namespace olmdsess
