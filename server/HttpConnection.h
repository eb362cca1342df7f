/// One client's connection: its requests one after the other, and a deadline for whatever it is waited for.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server/Dispatcher.h"
#include "server/HttpLimits.h"
#include "server/HttpRequest.h"
#include "server/Log.h"

namespace dsessd {

/// What all connections share.
struct HttpSetting {
    Dispatcher& dispatcher;
    Log& log;
    const HttpLimits limits;
    /// What may be posted to.
    std::vector<std::string> paths;
    /// Null: plain HTTP.
    std::unique_ptr<boost::asio::ssl::context> tls;
    /// The server stops: whatever is done ends by then.
    std::atomic<std::chrono::steady_clock::time_point> stop = std::chrono::steady_clock::time_point::max();
};

/// Used by one thread, the one that runs its context.
class HttpConnection : public std::enable_shared_from_this<HttpConnection> {
  public:
    using Clock = std::chrono::steady_clock;
    using Context = boost::asio::io_context;
    using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, Context::executor_type>;

    /// `onEnd` is called once, when all is over.
    HttpConnection(HttpSetting& setting, Context& context, Socket socket, std::function<void(HttpConnection&)> onEnd);
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;
    ~HttpConnection();

    void start();
    /// To be called every now and then: ends what takes too long.
    void tick(Clock::time_point now);

    enum class Doing {
        kHandshake,
        kIdle,     ///< waits for a request
        kReading,  ///< a request has begun to arrive
        kWorking,  ///< the answer, or more of it, is being made
        kHeldBack,
        kWriting,
        kEnding,
    };
    Doing doing() const { return m_doing; }
    /// When it began to wait for its client.
    Clock::time_point since() const { return m_since; }
    /// Whether it was told to end soon.
    bool isLeaving() const { return m_close; }

    /// Lets a request that has arrived be answered, and no other arrive.
    void letGo();
    /// The server stops: whatever is done ends by then.
    void stopBy(Clock::time_point moment);
    /// Answers that the server is busy, without waiting for a request.
    void turnAway();
    void cutOff();

  private:
    using Error = boost::system::error_code;

    void become(Doing doing, Clock::duration mostTime);
    template <typename Action>
    void attempt(const Action& action) noexcept;
    template <typename Action>
    auto handler(Action action);
    template <typename Action>
    void withStream(const Action& action);
    void awaitRequest();
    void read();
    void onRead(const Error& error, std::size_t bytes);
    void onHandshake(const Error& error);
    void endWhatTakesTooLong();
    void consume();
    void submit();
    void onAnswer(Answer answer, std::shared_ptr<Spool> rest);
    void refuse(int status);
    void beginAnswer(int status, std::string_view body, bool chunked);
    void write();
    void onWritten(const Error& error);
    void writeMore();
    void endAnswer();
    Clock::time_point answerDeadline() const;
    void closeGently();
    void discard();
    bool hasLeft() const;

    HttpSetting& m_setting;
    Context& m_context;
    Socket m_socket;
    std::optional<boost::asio::ssl::stream<Socket&>> m_tls;
    const std::function<void(HttpConnection&)> m_onEnd;
    Peer m_peer;

    Doing m_doing = Doing::kIdle;
    Clock::time_point m_since = Clock::now();
    Clock::time_point m_deadline = Clock::time_point::max();
    bool m_timedOut = false;
    bool m_close = false;
    bool m_ended = false;

    std::array<char, HttpRequest::kMaxHeadBytes> m_buffer{};
    std::size_t m_at = 0;
    std::size_t m_end = 0;
    std::optional<HttpRequest> m_request;
    std::shared_ptr<Patience> m_patience;

    std::string m_out;
    std::shared_ptr<Spool> m_rest;
    /// Without the times when the client was waiting.
    Clock::time_point m_answerStart;
    std::size_t m_answerBytes = 0;
    std::size_t m_discarded = 0;
};

}  // namespace dsessd
