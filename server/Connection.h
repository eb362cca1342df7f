/// One client's connection, plain or TLS, as the HTTP layer's stream. Every wait has an end.
#pragma once

#include <httplib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>

#include "runtime/QelFileDescriptor.h"
#include "server/Tls.h"

namespace dsessd {

struct ConnectionLimits {
    using Duration = std::chrono::milliseconds;
    /// From a request's first byte to its last, however it drips in; also for a TLS handshake.
    Duration request{10'000};
    /// Between requests, and before the first.
    Duration idle{30'000};
    /// A write that makes no progress at all.
    Duration stall{10'000};
    /// An answer may take this long and a second more for each `bytesPerSecond` taken.
    Duration answer{30'000};
    std::size_t bytesPerSecond = 250'000;
    /// A request with its head, in bytes.
    std::size_t requestBytes = 100'000;
};

class Connection final : public httplib::Stream {
  public:
    using Clock = std::chrono::steady_clock;

    /// `tls`: null for a plain connection.
    Connection(QelFileDescriptor socket, SSL_CTX* tls, const ConnectionLimits& limits);
    ~Connection() override;

    /// The TLS handshake; true at once on a plain connection.
    bool handshake();
    /// Waits for a request to begin. False: none comes.
    bool awaitRequest();
    /// Ends the connection so that the client still gets what was written: says that no more comes, then reads what the
    /// client is sending until it stops, for a while.
    void closeGently();

    // For any thread:
    enum class Waiting { kNo, kToRead, kToWrite };
    /// Whether it is the client that is waited for.
    Waiting waiting() const { return m_waitingFor; }
    /// When the present request began, or the wait for one.
    Clock::time_point began() const { return m_began; }
    /// Whether it waits between two requests.
    bool idle() const { return m_idle; }
    /// Ends whatever is waited for.
    void cutOff();
    /// Lets a request that has arrived be answered, and no other arrive.
    void stopReading();

    /// The status of HTTP that says why reading was given up; 0: it was not. What is written afterwards goes nowhere,
    /// since the request was not understood as it was meant.
    int refusal() const { return m_refusal; }
    /// Writes an answer without a body in place of the one that was refused.
    void writeRefusal();

    const SSL* ssl() const { return m_ssl.get(); }

    bool is_readable() const override { return true; }
    bool is_writable() const override { return m_refusal == 0; }
    ssize_t read(char* bytes, std::size_t size) override;
    ssize_t write(const char* bytes, std::size_t size) override;
    void get_remote_ip_and_port(std::string& ip, int& port) const override;
    void get_local_ip_and_port(std::string& ip, int& port) const override;
    socket_t socket() const override { return m_socket.get(); }

  private:
    bool wait(short events, Clock::time_point deadline);
    /// Result of a read or write of the socket or of TLS: bytes, 0 at the end, -1 at a failure or when time is up.
    ssize_t receive(char* bytes, std::size_t size, Clock::time_point deadline);
    ssize_t send(const char* bytes, std::size_t size, Clock::time_point deadline);
    bool awaitTls(int result, Clock::time_point deadline);

    QelFileDescriptor m_socket;
    Ssl m_ssl;
    const ConnectionLimits m_limits;
    std::string m_peerHost;
    int m_peerPort = 0;

    std::array<char, 16'384> m_buffer{};
    std::size_t m_at = 0;
    std::size_t m_end = 0;
    bool m_timedOut = false;

    Clock::time_point m_requestDeadline;
    std::size_t m_requestBytes = 0;
    Clock::time_point m_answerStart;
    std::size_t m_answerBytes = 0;
    int m_refusal = 0;

    std::atomic<Clock::time_point> m_began = Clock::now();
    std::atomic<Waiting> m_waitingFor = Waiting::kNo;
    std::atomic<bool> m_idle = false;
};

}  // namespace dsessd
