#include "admin/client/HttpTransport.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/compose.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <string_view>

#include "admin/client/AnswerHead.h"
#include "admin/client/Connecting.h"
#include "admin/client/Interruption.h"
#include "admin/client/Location.h"
#include "admin/client/Task.h"
#include "protocol/protocol.h"

namespace olmdsess {

namespace {

namespace beast = boost::beast;
namespace http = beast::http;

constexpr char kCutShort[] = "it was cut short";
constexpr char kNoConnection[] = "no connection";
constexpr char kEnded[] = "the connection ended before an answer";
constexpr char kEndedPerhapsForTls[] = "the connection ended before an answer, as by a server that expects TLS";
constexpr char kNoTls[] = "no TLS connection: ";

Attempt failed(AttemptFailure failure, std::string cause) {
    return {failure, std::move(cause)};
}

Attempt notUnderstood(const std::string& why) {
    return failed(AttemptFailure::kNotUnderstood, "answer not understood: " + why);
}

Attempt httpStatusFailure(int status) {
    const std::string cause = "HTTP status " + std::to_string(status) +
                              (status == 404 ? ": no session server is there, or not this instance of it" : "");
    if (status == 404) {
        return failed(AttemptFailure::kNotServed, cause);
    }
    if (status == 503) {
        return failed(AttemptFailure::kBusy, cause + ": the server cannot take more requests now");
    }
    if (status >= 400 && status < 600) {
        return failed(status < 500 ? AttemptFailure::kRefused : AttemptFailure::kFailed, cause);
    }
    return notUnderstood(cause);  // a redirection, for one, which no session server sends
}

/// Ends an attempt that has failed, whatever it was about to do.
struct Failed {
    Attempt attempt;
};

/// A connection that counts the bytes that left through it: what has been sent is known, whatever the layers above it
/// make of an error. As long as a write has not been counted, a byte of it may have left. A stream as Asio's composed
/// operations take it.
class Wire {
  public:
    using executor_type = tcp::socket::executor_type;
    using lowest_layer_type = tcp::socket::lowest_layer_type;

    explicit Wire(tcp::socket socket) : m_socket(std::move(socket)) {}

    executor_type get_executor() { return m_socket.get_executor(); }
    lowest_layer_type& lowest_layer() { return m_socket.lowest_layer(); }
    tcp::socket& socket() { return m_socket; }
    std::size_t written() const { return m_written + (m_isWriting ? 1 : 0); }

    template <class Buffers, class Token>
    auto async_read_some(const Buffers& buffers, Token&& token) {
        return m_socket.async_read_some(buffers, std::forward<Token>(token));
    }
    template <class Buffers, class Token>
    auto async_write_some(const Buffers& buffers, Token&& token) {
        const auto write = [this, buffers, begun = false](auto& self, ErrorCode error = {},
                                                          std::size_t count = 0) mutable {
            if (!begun) {
                begun = true;
                Wire& wire = *this;
                m_socket.async_write_some(buffers, std::move(self));
                wire.m_isWriting = true;  // unless the beginning has thrown
            } else {
                m_isWriting = false;
                m_written += count;
                self.complete(error, count);
            }
        };
        return net::async_compose<Token, void(ErrorCode, std::size_t)>(write, token, m_socket);
    }

  private:
    tcp::socket m_socket;
    std::size_t m_written = 0;
    bool m_isWriting = false;
};

/// A connection to one location. Its address stays, for TLS refers to its parts.
struct Connection {
    Connection(tcp::socket socket, const Location& to)
        : wire(std::move(socket)), secure(to.secure), authority(to.authority) {}

    bool leadsTo(const Location& location) const {
        return secure == location.secure && authority == location.authority;
    }

    /// Whether it is at rest: the server has neither closed it nor said anything that nobody asked for.
    bool isAtRest() {
        char byte = 0;
        return recv(wire.socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }

    Wire wire;
    const bool secure;
    const std::string authority;
    TlsReport report;
    std::optional<net::ssl::stream<Wire&>> tls;
};

/// How far one exchange of a request for an answer has come, and until when it may take.
class Exchange {
  public:
    enum class Stage { kLookup, kConnecting, kHandshake, kSent, kHead, kBody };

    Exchange(const AttemptLimits& limits, AnswerReader& reader) : m_limits(limits), m_reader(reader) {}

    Stage stage() const { return m_stage; }
    void enter(Stage stage) { m_stage = stage; }

    void onSending() {
        m_stage = Stage::kSent;
        m_answered = m_limits.leavesTime ? Clock::now() + (m_limits.end - Clock::now()) / 2 : m_limits.end;
    }

    void onBodyBegin() {
        m_stage = Stage::kBody;
        m_bodyStart = m_windowStart = m_lastByte = Clock::now();
    }

    /// A piece of the body. False when the answer is none; problem() says why.
    bool onBody(std::string_view piece) {
        m_lastByte = Clock::now();
        m_windowBytes += static_cast<long>(piece.size());
        return m_reader.read(piece);
    }

    /// When it has to end unless something more comes.
    Clock::time_point deadline() {
        if (m_stage < Stage::kSent) {
            return m_limits.end;
        }
        if (m_stage != Stage::kBody || !m_limits.mayFlow) {
            return m_answered;
        }
        const auto now = Clock::now();
        if (now >= m_windowStart + m_limits.silence && m_windowBytes >= leastBytesPerWindow()) {
            m_windowStart = now;
            m_windowBytes = 0;
        }
        const auto windowEnd = m_windowStart + m_limits.silence;
        const auto silenceEnd = m_lastByte + m_limits.silence;
        return m_windowBytes < leastBytesPerWindow() ? std::min(windowEnd, silenceEnd) : silenceEnd;
    }

    Clock::duration flowed() const { return m_limits.mayFlow ? m_windowStart - m_bodyStart : Clock::duration(); }
    const std::string& problem() const { return m_reader.problem(); }
    AnswerReader& reader() { return m_reader; }

  private:
    long leastBytesPerWindow() const {
        return kLeastBytesPerSecond * std::chrono::duration_cast<std::chrono::milliseconds>(m_limits.silence).count() /
               1000;
    }

    const AttemptLimits m_limits;
    AnswerReader& m_reader;
    Stage m_stage = Stage::kLookup;
    Clock::time_point m_answered;
    Clock::time_point m_bodyStart;
    Clock::time_point m_windowStart;
    Clock::time_point m_lastByte;
    long m_windowBytes = 0;
};

/// What Beast hands an answer's body to, piece by piece (its concept "Body").
struct AnswerBody {
    using value_type = Exchange*;

    class reader {
      public:
        template <bool isRequest, class Fields>
        reader(http::header<isRequest, Fields>& /*head*/, value_type& exchange) : m_exchange(exchange) {}

        static void init(const boost::optional<std::uint64_t>& /*length*/, ErrorCode& error) { error = {}; }
        template <class Buffers>
        std::size_t put(const Buffers& buffers, ErrorCode& error) {
            error = {};
            std::size_t taken = 0;
            for (const net::const_buffer piece : beast::buffers_range_ref(buffers)) {
                if (!m_exchange->onBody({static_cast<const char*>(piece.data()), piece.size()})) {
                    error = http::make_error_code(http::error::bad_value);
                    break;
                }
                taken += piece.size();
            }
            return taken;
        }
        static void finish(ErrorCode& error) { error = {}; }

      private:
        value_type& m_exchange;  // is set later
    };
};

using AnswerParser = http::response_parser<AnswerBody>;

std::string_view textOf(const beast::flat_buffer& buffer) {
    return {static_cast<const char*>(buffer.data().data()), buffer.size()};
}

bool isOutOfMemory(const ErrorCode& error) {
    return error == boost::system::errc::not_enough_memory ||
           (error.category() == net::error::get_ssl_category() &&
            ERR_GET_REASON(static_cast<unsigned long>(error.value())) == ERR_R_MALLOC_FAILURE);
}

std::string systemCause(const ErrorCode& error, const char* otherwise) {
    if (error == net::error::connection_refused) {
        return "connection refused";
    }
    return error.category() == boost::system::system_category() ? otherwise + (": " + error.message()) : otherwise;
}

std::string handshakeCause(const ErrorCode& error) {
    if (error.category() != net::error::get_ssl_category()) {
        return std::string(kNoTls) + "the server ended the connection in the handshake";
    }
    const auto code = static_cast<unsigned long>(error.value());
    if (ERR_GET_LIB(code) == ERR_LIB_SSL &&
        (ERR_GET_REASON(code) == SSL_R_WRONG_VERSION_NUMBER || ERR_GET_REASON(code) == SSL_R_HTTP_REQUEST)) {
        return std::string(kNoTls) + "what answers there does not speak TLS";
    }
    const char* reason = ERR_reason_error_string(code);
    return std::string(kNoTls) + (reason == nullptr ? error.message() : reason);
}

std::string timeoutCause(Exchange::Stage stage) {
    switch (stage) {
        case Exchange::Stage::kLookup:
            return "name lookup failed: no answer in time";
        case Exchange::Stage::kConnecting:
            return "no connection in time";
        case Exchange::Stage::kHandshake:
            return "no TLS handshake in time";
        case Exchange::Stage::kSent:
        case Exchange::Stage::kHead:
            return "no answer in time";
        case Exchange::Stage::kBody:
            return "the rest of the answer did not come in time";
    }
    return {};
}

/// Whether the server said that it did nothing.
bool isRefusal(const Attempt& attempt, const Connection* connection) {
    switch (attempt.failure) {
        case AttemptFailure::kRefused:
        case AttemptFailure::kNotServed:
        case AttemptFailure::kBusy:
            return true;
        case AttemptFailure::kTls:
            return connection != nullptr && connection->report.refusalProven;
        default:
            return false;
    }
}

/// The request's head and body in one piece: what wipes its memory holds the only copy.
SecretBuffer requestText(const Location& location, const SecretBuffer& body) {
    std::string head = "POST " + location.path + " HTTP/1.1\r\nHost: " + location.authority +
                       "\r\nContent-Type: " + protocol::kContentType + "\r\nAccept: " + protocol::kContentType +
                       "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    SecretBuffer text;
    text.reserve(head.size() + body.size());
    text.insert(text.end(), head.begin(), head.end());
    text.insert(text.end(), body.begin(), body.end());
    return text;
}

}  // namespace

/// All that waits: the event loop, and the connection in use. Once an exchange in it is left unfinished, or an
/// exception has left it, it is good for nothing but its end.
class HttpTransport::Wires {
  public:
    explicit Wires(const TlsPolicy& policy) : m_policy(policy), m_interrupted(m_loop, interruption::descriptor()) {}
    ~Wires() {
        leaveParent();
        if (m_isReusable && m_connection != nullptr && m_connection->tls) {
            farewell();
        }
        static_cast<void>(m_interrupted.release());
    }
    Wires(const Wires&) = delete;
    Wires& operator=(const Wires&) = delete;

    Attempt post(const Location& location, const SecretBuffer& body, const AttemptLimits& limits,
                 AnswerReader& reader) {
        leaveParent();
        if (m_connection != nullptr && !(m_connection->leadsTo(location) && m_connection->isAtRest())) {
            m_connection.reset();
        }
        const bool isKept = m_connection != nullptr;
        m_sentBefore = false;
        m_writtenBefore = isKept ? m_connection->wire.written() : 0;
        m_location = &location;
        m_request = requestText(location, body);
        Attempt attempt = run(limits, reader);
        if (isKept && attempt.failure == AttemptFailure::kUnreachable) {
            // The server closed the kept connection just when it was to be used again.
            m_sentBefore = hasSent();
            m_connection.reset();
            attempt = run(limits, reader);
        }
        // What was said of the last time is not said of one before it.
        attempt.mayHaveActed = isRefusal(attempt, m_connection.get()) ? m_sentBefore : mayHaveSent();
        attempt.flowed = m_exchange->flowed();
        if (!m_isReusable && !isUnfinished()) {
            m_connection.reset();
        }
        m_request = SecretBuffer();
        return attempt;
    }

    /// Whether an exchange waits in the loop.
    bool isUnfinished() const { return m_task && !m_task->isDone(); }
    /// Whether any of the request in hand has left.
    bool mayHaveSent() const { return m_sentBefore || hasSent(); }

  private:
    bool hasSent() const { return m_connection != nullptr && m_connection->wire.written() > m_writtenBefore; }

    /// In a child process after fork(2): what the loop waits for, and the connection, are the parent's.
    void leaveParent() {
        if (m_process != getpid()) {
            m_process = getpid();
            m_loop.notify_fork(net::execution_context::fork_child);
            m_connection.reset();
        }
    }

    /// Tells the server that the connection ends here, without waiting for its answer (RFC 8446, section 6.1).
    void farewell() noexcept {
        try {
            m_connection->tls->async_shutdown([](const ErrorCode&) {});
            m_loop.restart();
            m_loop.poll();
        } catch (const std::exception&) {
            return;  // it ends without a word then
        }
    }

    /// Runs an exchange until it has ended, its deadline has come, or somebody asks to give up. One that is left then
    /// is thrown away with the loop that it waits in: nothing has to be cancelled, and nothing can refuse to be.
    Attempt run(const AttemptLimits& limits, AnswerReader& reader) {
        m_exchange.emplace(limits, reader);
        m_isReusable = false;
        m_task.emplace(exchange()).start();
        while (isUnfinished()) {
            const auto deadline = m_exchange->deadline();
            if (!m_isWatching) {
                watchForInterruption();
            }
            if (m_loop.run_one_until(deadline) == 0 && Clock::now() >= m_exchange->deadline()) {
                return failed(AttemptFailure::kTimedOut, timeoutCause(m_exchange->stage()));
            }
            if (isUnfinished() && interruption::isOn()) {
                return failed(AttemptFailure::kInterrupted, "interrupted");
            }
        }
        return m_task->take();
    }

    void watchForInterruption() {
        m_interrupted.async_wait(net::posix::stream_descriptor::wait_read, [this](const ErrorCode&) {
            m_isWatching = false;
            interruption::rest();
        });
        m_isWatching = true;
    }

    /// The whole attempt, from the name of the host to the last byte of the answer.
    Task<Attempt> exchange() {
        try {
            if (m_connection == nullptr) {
                co_await connect();
            }
            if (m_connection->tls) {
                co_await converse(*m_connection->tls);
            } else {
                co_await converse(m_connection->wire);
            }
            co_return Attempt();
        } catch (Failed& failure) {
            co_return std::move(failure.attempt);
        } catch (const boost::system::system_error& error) {
            co_return judge(error.code());
        }
    }

    Task<Nothing> connect() {
        if (m_location->secure && !m_policy.trustsAnybody()) {
            throw Failed{failed(AttemptFailure::kTls, "no TLS connection: there is no key file to say whom to trust")};
        }
        const std::vector<tcp::endpoint> addresses = co_await lookUp(m_loop, m_location->host, m_location->port);
        m_exchange->enter(Exchange::Stage::kConnecting);
        m_connection = std::make_unique<Connection>(co_await connectToFirst(m_loop, addresses), *m_location);
        m_connection->wire.socket().set_option(tcp::no_delay(true));
        m_writtenBefore = 0;
        if (m_location->secure) {
            m_exchange->enter(Exchange::Stage::kHandshake);
            // The stream takes what it is given over, also when it throws.
            auto& tls = m_connection->tls.emplace(
                m_connection->wire, m_policy.makeConnection(m_location->host, m_connection->report).release());
            if (SSL_get_rbio(tls.native_handle()) == nullptr) {
                throw std::bad_alloc();
            }
            m_writtenBefore = std::numeric_limits<std::size_t>::max();  // of the handshake nothing counts as sent
            const auto [error] = co_await tls.async_handshake(net::ssl::stream_base::client, kAwaited);
            throwIf(error);
        }
        co_return Nothing();
    }

    template <class Stream>
    Task<Nothing> converse(Stream& stream) {
        m_writtenBefore = m_connection->wire.written();
        m_exchange->onSending();
        m_buffer.clear();
        const auto [error, count] = co_await net::async_write(stream, net::buffer(m_request), kAwaited);
        throwIf(error);
        co_await readHead(stream);
        co_return co_await readBody(stream);
    }

    /// Leaves the head of the answer in the buffer, with what came behind it.
    template <class Stream>
    Task<Nothing> readHead(Stream& stream) {
        std::size_t left = kMaxHeadBytes;
        AnswerHead head;
        AnswerHead::State state;
        while ((state = head.read(textOf(m_buffer))) != AnswerHead::State::kFinal) {
            if (state == AnswerHead::State::kRefused || (state == AnswerHead::State::kInterim && head.size() > left)) {
                throw Failed{notUnderstood(state == AnswerHead::State::kRefused ? head.problem() : kHeadTooLong)};
            }
            if (state == AnswerHead::State::kInterim) {
                left -= head.size();
                m_buffer.consume(head.size());
                head = AnswerHead();
                continue;
            }
            const auto [error, count] =
                co_await stream.async_read_some(m_buffer.prepare(m_buffer.max_size() - m_buffer.size()), kAwaited);
            throwIf(error);
            m_buffer.commit(count);
            m_exchange->enter(Exchange::Stage::kHead);
        }
        if (head.status() != 200) {
            throw Failed{httpStatusFailure(head.status())};
        }
        co_return Nothing();
    }

    template <class Stream>
    Task<Nothing> readBody(Stream& stream) {
        AnswerParser parser;
        parser.header_limit(kMaxHeadBytes);
        parser.body_limit(protocol::kMaxAnswerBytes);
        parser.get().body() = &*m_exchange;
        m_exchange->onBodyBegin();
        const auto [error, count] = co_await http::async_read(stream, m_buffer, parser, kAwaited);
        if (isOutOfMemory(error)) {
            throw std::bad_alloc();
        }
        if (error) {
            throw Failed{notUnderstood(bodyProblem(error, parser.is_header_done()))};
        }
        if (!m_exchange->reader().finish()) {
            throw Failed{notUnderstood(m_exchange->problem())};
        }
        m_isReusable = parser.keep_alive() && m_buffer.size() == 0;
        co_return Nothing();
    }

    std::string bodyProblem(const ErrorCode& error, bool isHeaderDone) const {
        if (!m_exchange->problem().empty()) {
            return m_exchange->problem();
        }
        if (error == http::error::body_limit) {
            return "it is too long";
        }
        const bool isDamaged = error.category() == http::make_error_code(http::error::bad_value).category() &&
                               error != http::error::partial_message;
        return !isDamaged ? kCutShort : isHeaderDone ? "its chunks are not HTTP/1.1" : kNotHttp;
    }

    /// What an error of the system, or of TLS, means where the exchange stands.
    Attempt judge(const ErrorCode& error) const {
        if (isOutOfMemory(error)) {
            return failed(AttemptFailure::kNoMemory, "");
        }
        switch (m_exchange->stage()) {
            case Exchange::Stage::kLookup:
                return failed(AttemptFailure::kUnreachable, "name lookup failed");
            case Exchange::Stage::kConnecting:
                if (!m_location->secure || error != net::error::connection_reset) {
                    return failed(AttemptFailure::kUnreachable, systemCause(error, kNoConnection));
                }
                [[fallthrough]];  // the same reset, a moment earlier
            case Exchange::Stage::kHandshake:
                return failed(AttemptFailure::kTls, tlsCause(error));
            case Exchange::Stage::kSent:
                if (m_connection->report.certificateAlert != nullptr) {
                    return failed(AttemptFailure::kTls, tlsCause(error));
                }
                return failed(AttemptFailure::kUnreachable,
                              systemCause(error, m_location->secure ? kEnded : kEndedPerhapsForTls));
            case Exchange::Stage::kHead:
            case Exchange::Stage::kBody:
                break;
        }
        return notUnderstood(kCutShort);
    }

    std::string tlsCause(const ErrorCode& error) const {
        const TlsReport report = m_connection == nullptr ? TlsReport() : m_connection->report;
        if (!report.certificateProblem.empty()) {
            return "the server's certificate " + report.certificateProblem;
        }
        if (report.certificateAlert != nullptr) {
            return std::string("our certificate was refused: ") + report.certificateAlert +
                   (m_policy.hasIdentity() ? " (" + m_policy.identityText() + ")" : ", and the key file holds none");
        }
        return handshakeCause(error);
    }

    // The task goes first, then what it refers to, and last the loop, with all that waits in it.
    const TlsPolicy& m_policy;
    const Location* m_location = nullptr;  // of the request in hand
    SecretBuffer m_request;
    std::optional<Exchange> m_exchange;
    beast::flat_buffer m_buffer{kMaxHeadBytes};
    bool m_sentBefore = false;        // of the request, something left through a connection before this one
    std::size_t m_writtenBefore = 0;  // bytes that left the connection before the request
    bool m_isReusable = false;
    pid_t m_process = getpid();
    bool m_isWatching = false;                                   // for an interruption
    net::io_context m_loop{BOOST_ASIO_CONCURRENCY_HINT_UNSAFE};  // for one thread
    net::posix::stream_descriptor m_interrupted;
    std::unique_ptr<Connection> m_connection;
    std::optional<Task<Attempt>> m_task;  // the exchange
};

HttpTransport::HttpTransport(const TlsPolicy& policy) : m_policy(policy) {}

HttpTransport::~HttpTransport() = default;

Attempt HttpTransport::post(const std::string& url, const SecretBuffer& body, const AttemptLimits& limits,
                            AnswerReader& reader) noexcept {
    try {
        const std::optional<Location> location = parseLocation(url);
        if (!location) {
            return failed(AttemptFailure::kUnreachable, "this is not a usable URL");
        }
        if (m_wires == nullptr) {
            m_wires = std::make_unique<Wires>(m_policy);
        }
        const Attempt attempt = m_wires->post(*location, body, limits, reader);
        if (m_wires->isUnfinished()) {
            m_wires.reset();
        }
        return attempt;
    } catch (const boost::system::system_error& lacking) {  // such as a descriptor
        return abandon(failed(AttemptFailure::kUnreachable, systemCause(lacking.code(), kNoConnection)));
    } catch (const std::exception&) {
        return abandon({AttemptFailure::kNoMemory});
    }
}

Attempt HttpTransport::abandon(Attempt attempt) noexcept {
    attempt.mayHaveActed = m_wires != nullptr && m_wires->mayHaveSent();
    m_wires.reset();
    return attempt;
}

}  // namespace olmdsess
