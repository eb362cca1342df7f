#include "admin/client/request/Connecting.h"

#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cassert>
#include <csignal>
#include <cstring>
#include <list>
#include <memory>
#include <optional>
#include <thread>

#include "runtime/QelFileDescriptor.h"
#include "runtime/ThreadAnnotations.h"

namespace olmdsess {

namespace {

constexpr std::chrono::milliseconds kNextAddressAfter{250};

struct AddressListDeleter {
    void operator()(addrinfo* list) const noexcept { freeaddrinfo(list); }
};

/// A question to the system about a name. Whoever asks and the thread that waits for the answer own it together.
class Lookup {
  public:
    Lookup(std::string host, std::string port)
        : m_host(std::move(host)), m_port(std::move(port)), m_signal(eventfd(0, EFD_CLOEXEC)) {
        if (!m_signal.isOpen()) {
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
            const MutexLock lock(m_mutex);
            m_error = error;
            m_list.reset(error == 0 ? list : nullptr);
            m_isAnswered = true;
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(m_signal.get(), &one, sizeof(one));
    }

    int descriptor() const { return m_signal.get(); }

    bool isAnswered() const {
        const MutexLock lock(m_mutex);
        return m_isAnswered;
    }

    /// The answer. Throws as lookUp() does.
    std::vector<tcp::endpoint> addresses() const {
        const MutexLock lock(m_mutex);
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
    const QelFileDescriptor m_signal;
    mutable Mutex m_mutex;
    bool m_isAnswered GUARDED_BY(m_mutex) = false;
    int m_error GUARDED_BY(m_mutex) = 0;
    std::unique_ptr<addrinfo, AddressListDeleter> m_list GUARDED_BY(m_mutex);
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

/// Sorts addresses so that IPv6 and IPv4 alternate, each kind in the order that the system gave (RFC 8305, section 4).
/// When a host is reached by one kind only, its first address is then tried soon.
std::vector<tcp::endpoint> inTurns(const std::vector<tcp::endpoint>& addresses) {
    assert(!addresses.empty());
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

/// The attempts to connect to a host's addresses. The first that succeeds wins. Handlers of attempts share ownership.
struct Race {
    explicit Race(net::io_context& loop) : nextTurn(loop) {}

    net::steady_timer nextTurn;  // expires when the next address is due; cancelled when an attempt ends
    std::list<tcp::socket> tries;
    std::optional<tcp::socket> connected;
    ErrorCode problem;  // of the try that failed last
};

/// Tries one more address.
void enter(const std::shared_ptr<Race>& race, net::io_context& loop, const tcp::endpoint& address) {
    const auto socket = race->tries.emplace(race->tries.end(), loop);
    socket->open(address.protocol(), race->problem);
    if (race->problem) {
        race->tries.erase(socket);
        return;
    }
    // A program that the caller starts must not inherit the socket.
    static_cast<void>(fcntl(socket->native_handle(), F_SETFD, FD_CLOEXEC));
    socket->async_connect(address, [race, socket](const ErrorCode& error) {
        if (race->connected) {
            return;  // too late: the socket is gone
        }
        if (error) {
            race->problem = error;
        } else {
            race->connected = std::move(*socket);
        }
        race->tries.erase(socket);
        race->nextTurn.cancel();
    });
}

}  // namespace

Task<std::vector<tcp::endpoint>> lookUp(net::io_context& loop, const std::string& host, const std::string& port) {
    ErrorCode notAnAddress;
    const net::ip::address address = net::ip::make_address(host, notAnAddress);
    if (!notAnAddress) {
        co_return std::vector{tcp::endpoint(address, static_cast<std::uint16_t>(std::stoi(port)))};
    }
    const auto lookup = std::make_shared<Lookup>(host, port);
    start(lookup);
    // Wait on a copy of the descriptor: the thread may still write to the original after this wait was given up.
    QelFileDescriptor copy(fcntl(lookup->descriptor(), F_DUPFD_CLOEXEC, 0));
    if (!copy.isOpen()) {
        throw std::bad_alloc();
    }
    net::posix::stream_descriptor answered(loop);
    answered.assign(copy.get());
    static_cast<void>(copy.release());
    // The loop may wake this wait for an event of a closed descriptor that had the same number.
    while (!lookup->isAnswered()) {
        const auto [error] = co_await answered.async_wait(net::posix::stream_descriptor::wait_read, kAwaited);
        throwIf(error);
    }
    // release() takes the descriptor out of the loop. Closing alone would not: the thread still has a copy of it.
    const QelFileDescriptor taken(answered.release());
    co_return inTurns(lookup->addresses());
}

Task<tcp::socket> connectToFirst(net::io_context& loop, std::span<const tcp::endpoint> addresses) {
    assert(!addresses.empty());
    const auto race = std::make_shared<Race>(loop);
    while (!race->connected) {
        if (!addresses.empty()) {
            enter(race, loop, addresses.front());
            addresses = addresses.subspan(1);
        } else if (race->tries.empty()) {
            throw boost::system::system_error(race->problem);
        }
        if (!race->tries.empty()) {
            race->nextTurn.expires_after(addresses.empty() ? std::chrono::hours(1) : kNextAddressAfter);
            co_await race->nextTurn.async_wait(kAwaited);
        }
    }
    race->tries.clear();
    co_return std::move(*race->connected);
}

}  // namespace olmdsess
