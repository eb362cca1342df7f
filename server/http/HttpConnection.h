/// One client's connection: a coroutine that reads from top to bottom (HttpConnection::live()), and a deadline for
/// whatever it waits for.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server/http/HeadCheck.h"
#include "server/http/HttpLimits.h"
#include "server/http/TlsInForce.h"
#include "server/log/Log.h"
#include "server/metrics/Metrics.h"
#include "server/scheduling/Lanes.h"
#include "server/service/Repeats.h"

namespace dsessd {

class HttpRequest;

/// What all connections share.
struct HttpSetting {
    Lanes& lanes;
    Log& log;
    Metrics& metrics;
    const HttpLimits limits;
    /// What may be posted to.
    std::vector<std::string> paths;
    /// Null: plain HTTP.
    TlsInForce* tls;
    /// The server stops: whatever is done ends by then.
    std::atomic<std::chrono::steady_clock::time_point> stop = std::chrono::steady_clock::time_point::max();
    Repeats failedHandshakes{};
};

/// Carries one client's requests to the lanes and their answers back. It is passive between its client's bytes: whoever
/// owns it calls start() once and tick() some times a second. Used by one thread alone, the one that runs its context.
class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
  public:
    using Clock = std::chrono::steady_clock;
    using Context = boost::asio::io_context;

    /// Takes the socket, an accepted and open one. `onEnd` is called once, when all is over.
    HttpConnection(HttpSetting& setting, Context& context, QelFileDescriptor socket,
                   std::function<void(HttpConnection&)> onEnd);
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;
    ~HttpConnection();

    /// `isTurnedAway`: answers that the server is busy, without waiting for a request.
    void start(bool isTurnedAway);
    /// To be called every now and then: ends what takes too long.
    void tick(Clock::time_point now);

    /// The client's host, as in Peer::host.
    const std::string& host() const { return m_peer.host; }
    /// Whether it waits for its client to shake hands, or for a request to arrive.
    bool awaitsRequest() const;
    /// Whether it may make room: the server itself owes it nothing now, and it was not told to end yet.
    bool mayMakeRoom() const;
    /// When it began to wait for its client.
    Clock::time_point waitingSince() const { return m_since; }

    /// Lets a request that has arrived be answered, and no other arrive.
    void takeNoMore();
    /// The server stops: whatever is done ends by then.
    void stopBy(Clock::time_point moment);
    /// Ends it at once: whatever it waits for fails.
    void cutOff();

  private:
    using Error = boost::system::error_code;
    using Executor = Context::executor_type;
    using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor>;
    using Timer = boost::asio::basic_waitable_timer<Clock, boost::asio::wait_traits<Clock>, Executor>;
    template <typename Result>
    using Awaitable = boost::asio::awaitable<Result, Executor>;
    class Ending;
    enum class Doing {
        kHandshake,
        kIdle,      ///< waits for a request
        kReading,   ///< a request has begun to arrive
        kWorking,   ///< the answer, or more of it, is being made
        kHeldBack,  ///< the answer is there, and has to wait
        kWriting,
        kEnding,  ///< all is said; the client may still read
    };
    /// Memory for the one operation that is pending. With it, no operation fails to begin for want of memory, a failure
    /// that its coroutine could not be told.
    struct OperationMemory {
        alignas(std::max_align_t) std::array<std::byte, 1024> block;
        bool isUsed = false;
    };
    template <typename Element>
    class OperationAllocator;

    Awaitable<void> live(std::shared_ptr<HttpConnection> self, bool isTurnedAway);
    Awaitable<bool> shakeHands();
    Awaitable<void> serve();
    Awaitable<void> receiveRequest(HttpRequest& request);
    Awaitable<void> answer(HttpRequest& request);
    Awaitable<void> sendRest(Spool& rest, bool chunked);
    Awaitable<void> refuse(int status);
    Awaitable<void> closeGently();

    Awaitable<std::size_t> receive(boost::asio::mutable_buffer room);
    Awaitable<void> send(std::string_view bytes);
    Awaitable<void> pause();
    void wake();
    auto tellingIn(Error& error);

    void turnTo(Doing doing, Clock::duration mostTime);
    void beginWriting();
    std::string headOf(int status, std::optional<std::size_t> length, bool chunked, bool lacksStore = false) const;
    Clock::time_point answerDeadline() const;
    bool hasLeft() const;
    /// Whether nothing more can be sent.
    bool isOver() const { return m_ended || m_error; }

    HttpSetting& m_setting;
    Context& m_context;
    OperationMemory m_operation;
    Socket m_socket;
    /// Says why the client's certificate was refused. Empty when it was not.
    std::string m_certificateProblem;
    /// The certificates that were in force when the connection began. Its handshake uses these, also when others are
    /// read meanwhile.
    std::shared_ptr<const TlsContext> m_tlsContext;
    std::optional<boost::asio::ssl::stream<Socket&>> m_tls;
    /// Never expires: pause() waits for it until wake() ends that.
    Timer m_pause;
    const std::function<void(HttpConnection&)> m_onEnd;
    Peer m_peer;

    Doing m_doing = Doing::kIdle;
    Clock::time_point m_since = Clock::now();
    Clock::time_point m_deadline = Clock::time_point::max();
    bool m_timedOut = false;
    bool m_close = false;
    bool m_ended = false;
    /// What the last that was received or sent has failed of.
    Error m_error;

    std::array<char, HeadCheck::kMaxHeadBytes> m_buffer{};
    std::size_t m_at = 0;
    std::size_t m_end = 0;
    std::shared_ptr<RequestDeadlines> m_deadlines;
    /// Without the times when the client was waiting.
    Clock::time_point m_answerStart;
    std::size_t m_answerBytes = 0;
};

}  // namespace dsessd
