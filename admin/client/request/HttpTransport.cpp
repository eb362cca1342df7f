#include "admin/client/request/HttpTransport.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <string_view>

#include "admin/client/answer/AnswerHead.h"
#include "admin/client/base/Failure.h"
#include "admin/client/request/Connecting.h"
#include "admin/client/request/Interruption.h"
#include "admin/client/request/Location.h"
#include "admin/client/request/Task.h"
#include "protocol/protocol.h"

namespace olmdsess {

namespace {

namespace beast = boost::beast;
namespace http = beast::http;

constexpr char kCutShort[] = "it was cut short";
constexpr char kNoLookup[] = "name lookup failed";
constexpr char kNoConnection[] = "no connection";
constexpr char kEnded[] = "the connection ended before an answer";
constexpr char kEndedPerhapsForTls[] = "the connection ended before an answer, as by a server that expects TLS";
constexpr char kNoTls[] = "no TLS connection: ";
constexpr int kHttpOk = 200;
constexpr int kHttpNotFound = 404;
constexpr int kHttpUnavailable = 503;

Failure interrupted() {
    return {kStatusInterrupted, "interrupted"};
}

/// What an HTTP status other than 200 means.
Failure httpFailure(const AnswerHead& head) {
    const std::string cause = "HTTP status " + std::to_string(head.status());
    switch (head.status()) {
        case kHttpNotFound:
            return {kStatusInstanceNotServed, cause + ": no session server is there, or not this instance of it"};
        case kHttpUnavailable:
            return {kStatusNoLocation, cause + (head.lacksStore() ? ": the server cannot reach its database now"
                                                                  : ": the server has too much to do now")};
        default:
            if (head.status() < 400 || head.status() >= 600) {
                return notUnderstood(cause);  // such as a redirection, which no session server sends
            }
            return {head.status() < 500 ? kStatusRequestRefused : kStatusNoLocation, cause};
    }
}

/// A connection to one location, over TLS where that is asked for. It counts the bytes that leave, so what has been
/// sent is known, whatever the layers above make of an error. Its address stays, for TLS refers to it.
class Connection {
  public:
    /// Takes a connected socket. Throws std::bad_alloc.
    Connection(tcp::socket socket, const Location& to)
        : m_socket(std::move(socket)), m_secure(to.secure), m_authority(to.authority) {
        m_socket.set_option(tcp::no_delay(true));
        m_socket.native_non_blocking(true);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool leadsTo(const Location& location) const {
        return m_secure == location.secure && m_authority == location.authority;
    }

    /// Whether it is at rest: the server has neither closed it nor said anything that nobody asked for.
    bool isAtRest() {
        char byte = 0;
        return recv(m_socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }

    std::size_t written() const { return m_written; }
    TlsReport& report() { return m_report; }

    /// Shakes hands. All that follows goes over TLS, and report() has what it found out.
    Task<Nothing> shakeHands(ConnectionPtr tls) {
        assert(m_tls == nullptr);
        m_tls = std::move(tls);
        m_method.reset(BIO_meth_new(BIO_TYPE_SOURCE_SINK, "socket"));
        BIO* const bio = m_method == nullptr ? nullptr : BIO_new(m_method.get());
        if (bio == nullptr) {
            ERR_clear_error();
            throw std::bad_alloc();
        }
        BIO_meth_set_write(m_method.get(), sendCallback);
        BIO_meth_set_read(m_method.get(), receiveCallback);
        BIO_meth_set_ctrl(m_method.get(),
                          [](BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1L : 0L; });
        BIO_set_data(bio, this);
        BIO_set_init(bio, 1);
        SSL_set_bio(m_tls.get(), bio, bio);
        if (co_await untilDone([this] { return SSL_connect(m_tls.get()); }) == 0) {
            throw boost::system::system_error(net::error::eof);
        }
        co_return Nothing();
    }

    /// Reads some bytes; none once the server has ended the connection in order.
    Task<std::size_t> read(net::mutable_buffer to) {
        const int count = co_await untilDone([&] {
            return m_tls == nullptr ? receive(to.data(), to.size())
                                    : SSL_read(m_tls.get(), to.data(), static_cast<int>(to.size()));
        });
        co_return static_cast<std::size_t>(count);
    }

    Task<Nothing> write(std::string_view bytes) {
        while (!bytes.empty()) {
            const int count = co_await untilDone([&] {
                return m_tls == nullptr ? send(bytes.data(), bytes.size())
                                        : SSL_write(m_tls.get(), bytes.data(), static_cast<int>(bytes.size()));
            });
            if (count == 0) {
                throw boost::system::system_error(net::error::eof);
            }
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        co_return Nothing();
    }

    /// Tells the server that the connection ends here, without waiting for its answer (RFC 8446, section 6.1).
    void farewell() {
        if (m_tls != nullptr) {
            SSL_shutdown(m_tls.get());
            ERR_clear_error();
        }
    }

  private:
    using MethodPtr = std::unique_ptr<BIO_METHOD, OpensslDeleter<BIO_meth_free>>;

    int send(const void* bytes, std::size_t count) {
        // write(2), which OpenSSL would use, raises SIGPIPE when the server has closed the connection.
        const ssize_t sent = ::send(m_socket.native_handle(), bytes, count, MSG_NOSIGNAL);
        m_written += sent > 0 ? static_cast<std::size_t>(sent) : 0;
        return note(sent, tcp::socket::wait_write);
    }
    int receive(void* bytes, std::size_t count) {
        return note(recv(m_socket.native_handle(), bytes, count, 0), tcp::socket::wait_read);
    }
    /// Remembers the error of a system call, and what to wait for before it is repeated.
    int note(ssize_t result, tcp::socket::wait_type wait) {
        m_error = result < 0 ? errno : 0;
        m_wait = wait;
        return static_cast<int>(result);
    }

    static int sendCallback(BIO* bio, const char* bytes, int count) {
        auto* connection = static_cast<Connection*>(BIO_get_data(bio));
        return connection->tell(bio, connection->send(bytes, static_cast<std::size_t>(count)), BIO_FLAGS_WRITE);
    }
    static int receiveCallback(BIO* bio, char* bytes, int count) {
        auto* connection = static_cast<Connection*>(BIO_get_data(bio));
        return connection->tell(bio, connection->receive(bytes, static_cast<std::size_t>(count)), BIO_FLAGS_READ);
    }
    /// Tells OpenSSL whether a read or write that failed is to be made again.
    int tell(BIO* bio, int result, int direction) const {
        BIO_clear_retry_flags(bio);
        if (m_error == EAGAIN) {
            BIO_set_flags(bio, direction | BIO_FLAGS_SHOULD_RETRY);
        }
        return result;
    }

    /// Makes a step, of the system or of OpenSSL, again each time that the socket is ready, until it is done. Returns
    /// what it returned, 0 for the end of the connection. Throws boost::system::system_error.
    template <class Step>
    Task<int> untilDone(Step step) {
        for (;;) {
            if (m_tls != nullptr) {
                ERR_clear_error();  // SSL_get_error looks at the queue of errors, which may hold older ones
            }
            const int result = step();
            const int state = m_tls == nullptr || result > 0 ? SSL_ERROR_NONE : SSL_get_error(m_tls.get(), result);
            if (result > 0 || state == SSL_ERROR_ZERO_RETURN || (m_tls == nullptr && result == 0)) {
                co_return std::max(result, 0);
            }
            if (state == SSL_ERROR_SSL) {
                throwTlsError();
            }
            if (m_error == 0) {  // TLS did not end before the connection
                throw boost::system::system_error(net::error::eof);
            }
            if (m_error != EAGAIN) {
                throw boost::system::system_error(ErrorCode(m_error, boost::system::system_category()));
            }
            const auto [error] = co_await m_socket.async_wait(m_wait, kAwaited);
            throwIf(error);
        }
    }

    [[noreturn]] static void throwTlsError() {
        const unsigned long code = ERR_get_error();
        ERR_clear_error();
        if (ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
            throw boost::system::system_error(net::error::eof);
        }
        throw boost::system::system_error(ErrorCode(static_cast<int>(code), net::error::get_ssl_category()));
    }

    tcp::socket m_socket;
    const bool m_secure;
    const std::string m_authority;
    std::size_t m_written = 0;
    int m_error = 0;  // of the last system call
    tcp::socket::wait_type m_wait = tcp::socket::wait_read;
    TlsReport m_report;
    MethodPtr m_method;
    ConnectionPtr m_tls;  // null: none
};

/// The progress of one attempt: which stage it has reached, and when it is given up. Whoever carries the attempt out
/// reports each step, and asks for the deadline again after each.
class Exchange {
  public:
    enum class Stage { kLookup, kConnecting, kHandshake, kSent, kHead, kBody };

    Exchange(const AttemptLimits& limits, AnswerReader& reader)
        : m_limits(limits), m_reader(reader), m_answered(limits.end) {}

    Stage stage() const { return m_stage; }
    void enter(Stage stage) { m_stage = stage; }

    void onSending() {
        m_stage = Stage::kSent;
        if (m_limits.leavesTime) {
            m_answered = Clock::now() + (m_limits.end - Clock::now()) / 2;
        }
    }

    void onBodyBegin() {
        m_stage = Stage::kBody;
        m_bodyStart = m_windowStart = m_lastByte = Clock::now();
    }

    /// Takes a piece of the body. Throws as the reader does, and Failure at an interrupt: while pieces come faster than
    /// they are read, the loop that looks for an interrupt has no turn.
    void onBody(std::string_view piece) {
        if (interruption::isOn()) {
            throw interrupted();
        }
        m_lastByte = Clock::now();
        m_windowBytes += static_cast<long>(piece.size());
        m_reader.read(piece);
    }

    /// The time at which the attempt is given up. It moves on while a long answer flows.
    Clock::time_point deadline() {
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
    AnswerReader& reader() { return m_reader; }

  private:
    long leastBytesPerWindow() const {
        return kLeastBytesPerSecond * std::chrono::duration_cast<std::chrono::milliseconds>(m_limits.silence).count() /
               1000;
    }

    const AttemptLimits m_limits;
    AnswerReader& m_reader;
    Stage m_stage = Stage::kLookup;
    Clock::time_point m_answered;  // by when an answer must have begun
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
                m_exchange->onBody({static_cast<const char*>(piece.data()), piece.size()});
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

/// The event loop and the connection in use. After an exchange was left unfinished, or an exception was thrown, it
/// must be destroyed and made anew.
class HttpTransport::Wires {
  public:
    explicit Wires(const TlsPolicy& policy) : m_policy(policy), m_interrupted(m_loop, interruption::descriptor()) {}
    ~Wires() {
        leaveParent();
        if (m_isReusable && m_connection != nullptr) {
            m_connection->farewell();
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
        m_writtenBefore = isKept ? m_connection->written() : 0;
        m_location = &location;
        m_request = requestText(location, body);
        Attempt attempt = run(limits, reader);
        if (isKept && attempt.status == kStatusNoLocation && m_exchange->stage() == Exchange::Stage::kSent) {
            // The server closed the kept connection just when it was to be used again.
            m_sentBefore = hasSent();
            m_connection.reset();
            attempt = run(limits, reader);
        }
        // A refusal speaks for the second sending alone: the first one may have been carried out.
        attempt.mayHaveActed = isRefused(attempt) ? m_sentBefore : mayHaveSent();
        attempt.isBusy = m_httpStatus == kHttpUnavailable;
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
    /// Whether the server said that it did nothing.
    bool isRefused(const Attempt& attempt) const {
        return (m_httpStatus >= 400 && m_httpStatus < 500) || m_httpStatus == kHttpUnavailable ||
               (attempt.status == kStatusTlsFailure && m_connection != nullptr && m_connection->report().refusalProven);
    }
    bool hasSent() const { return m_connection != nullptr && m_connection->written() > m_writtenBefore; }

    /// In a child process after fork(2): what the loop waits for, and the connection, are the parent's.
    void leaveParent() {
        if (m_process != getpid()) {
            m_process = getpid();
            m_loop.notify_fork(net::execution_context::fork_child);
            m_connection.reset();
        }
    }

    /// Runs an exchange until it ends, its deadline passes, or an interrupt comes. An exchange that is left unfinished
    /// is destroyed together with its loop, so none of its operations has to be cancelled.
    Attempt run(const AttemptLimits& limits, AnswerReader& reader) {
        m_exchange.emplace(limits, reader);
        m_isReusable = false;
        m_httpStatus = 0;
        m_task.emplace(exchange()).start();
        while (isUnfinished()) {
            const auto deadline = m_exchange->deadline();
            if (!m_isWatching) {
                watchForInterruption();
            }
            if (m_loop.run_one_until(deadline) == 0 && Clock::now() >= m_exchange->deadline()) {
                return {kStatusTimedOut, timeoutCause(m_exchange->stage())};
            }
            if (isUnfinished() && interruption::isOn()) {
                const Failure failure = interrupted();
                return {failure.status, failure.cause};
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
            m_writtenBefore = m_connection->written();
            m_exchange->onSending();
            co_await m_connection->write({m_request.data(), m_request.size()});
            m_buffer.clear();
            co_await readHead();
            co_await readBody();
            co_return Attempt();
        } catch (const Failure& failure) {
            co_return Attempt{failure.status, failure.cause};
        } catch (const boost::system::system_error& error) {
            const Failure failure = judge(error.code());
            co_return Attempt{failure.status, failure.cause};
        }
    }

    Task<Nothing> connect() {
        if (m_location->secure && !m_policy.trustsAnybody()) {
            throw Failure{kStatusTlsFailure, std::string(kNoTls) + "there is no key file to say whom to trust"};
        }
        const std::vector<tcp::endpoint> addresses = co_await lookUp(m_loop, m_location->host, m_location->port);
        m_exchange->enter(Exchange::Stage::kConnecting);
        m_connection = std::make_unique<Connection>(co_await connectToFirst(m_loop, addresses), *m_location);
        m_writtenBefore = std::numeric_limits<std::size_t>::max();  // of the handshake nothing counts as sent
        if (m_location->secure) {
            m_exchange->enter(Exchange::Stage::kHandshake);
            co_await m_connection->shakeHands(m_policy.makeConnection(m_location->host, m_connection->report()));
        }
        co_return Nothing();
    }

    /// Adds to the buffer what comes next. False: the server has ended the connection in order.
    Task<bool> readMore() {
        const std::size_t room = m_buffer.max_size() - m_buffer.size();
        const std::size_t count = co_await m_connection->read(m_buffer.prepare(room));
        m_buffer.commit(count);
        co_return count > 0;
    }

    /// Leaves the head of the answer in the buffer, with what came behind it.
    Task<Nothing> readHead() {
        std::size_t left = kMaxHeadBytes;
        AnswerHead head;
        AnswerHead::State state;
        while ((state = head.read(textOf(m_buffer))) != AnswerHead::State::kFinal) {
            if (state == AnswerHead::State::kInterim) {
                if (head.size() > left) {
                    throw notUnderstood(kHeadTooLong);
                }
                left -= head.size();
                m_buffer.consume(head.size());
                head = AnswerHead();
                continue;
            }
            if (!co_await readMore()) {
                throw boost::system::system_error(net::error::eof);
            }
            m_exchange->enter(Exchange::Stage::kHead);
        }
        m_httpStatus = head.status();
        if (m_httpStatus != kHttpOk) {
            throw httpFailure(head);
        }
        co_return Nothing();
    }

    Task<Nothing> readBody() {
        AnswerParser parser;
        parser.header_limit(kMaxHeadBytes);
        parser.body_limit(m_exchange->reader().mostBytes());
        parser.eager(true);
        parser.get().body() = &*m_exchange;
        m_exchange->onBodyBegin();
        for (ErrorCode error; !parser.is_done();) {
            m_buffer.consume(parser.put(m_buffer.data(), error));
            if (!error && parser.is_done()) {
                break;
            }
            if ((!error || error == http::error::need_more) && m_buffer.size() < m_buffer.max_size() &&
                !co_await readMore()) {
                parser.put_eof(error);
            }
            if (error && error != http::error::need_more) {
                throw notUnderstood(bodyProblem(error, parser.is_header_done()));
            }
        }
        m_exchange->reader().finish();
        m_isReusable = parser.keep_alive() && m_buffer.size() == 0;
        co_return Nothing();
    }

    static std::string bodyProblem(const ErrorCode& error, bool isHeaderDone) {
        if (error == http::error::body_limit) {
            return kTooLong;
        }
        const bool isDamaged = error.category() == http::make_error_code(http::error::bad_value).category() &&
                               error != http::error::partial_message;
        return !isDamaged ? kCutShort : isHeaderDone ? "its chunks are not HTTP/1.1" : kNotHttp;
    }

    /// What an error of the system or of TLS means at the stage that the exchange has reached. Throws std::bad_alloc.
    Failure judge(const ErrorCode& error) const {
        if (isOutOfMemory(error)) {
            throw std::bad_alloc();
        }
        switch (m_exchange->stage()) {
            case Exchange::Stage::kLookup:
                return {kStatusNoLocation, systemCause(error, kNoLookup)};
            case Exchange::Stage::kConnecting:
                if (!m_location->secure || error != net::error::connection_reset) {
                    return {kStatusNoLocation, systemCause(error, kNoConnection)};
                }
                [[fallthrough]];  // the server may reset a connection before or after we begin the handshake
            case Exchange::Stage::kHandshake:
                return {kStatusTlsFailure, tlsCause(error)};
            case Exchange::Stage::kSent:
                if (m_connection->report().certificateAlert != nullptr) {
                    return {kStatusTlsFailure, tlsCause(error)};
                }
                return {kStatusNoLocation, systemCause(error, m_location->secure ? kEnded : kEndedPerhapsForTls)};
            case Exchange::Stage::kHead:
            case Exchange::Stage::kBody:
                break;
        }
        return notUnderstood(kCutShort);
    }

    std::string tlsCause(const ErrorCode& error) const {
        const TlsReport report = m_connection == nullptr ? TlsReport() : m_connection->report();
        if (!report.certificateProblem.empty()) {
            return "the server's certificate " + report.certificateProblem;
        }
        if (report.certificateAlert != nullptr) {
            return std::string("our certificate was refused: ") + report.certificateAlert +
                   (m_policy.hasIdentity() ? " (" + m_policy.identityText() + ")" : ", and the key file holds none");
        }
        return handshakeCause(error);
    }

    // Members are destroyed from the last to the first: the coroutine, then the connection that it uses, then the loop
    // that holds their pending operations, then the data that those operations point to.
    const TlsPolicy& m_policy;
    const Location* m_location = nullptr;  // of the request in hand
    SecretBuffer m_request;
    std::optional<Exchange> m_exchange;
    beast::flat_buffer m_buffer{kMaxHeadBytes};
    bool m_sentBefore = false;        // part of the request left through an earlier connection
    std::size_t m_writtenBefore = 0;  // bytes that left the connection before the request
    bool m_isReusable = false;
    int m_httpStatus = 0;  // of the answer; 0: none has come
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
    assert(reader.head().empty());
    try {
        const std::optional<Location> location = parseLocation(url);
        if (!location) {
            return {kStatusNoLocation, "this is not a usable URL"};
        }
        if (m_wires == nullptr) {
            m_wires = std::make_unique<Wires>(m_policy);
        }
        Attempt attempt = m_wires->post(*location, body, limits, reader);
        if (m_wires->isUnfinished()) {
            m_wires.reset();
        }
        return attempt;
    } catch (const boost::system::system_error& lacking) {  // such as a descriptor
        return abandon({kStatusNoLocation, systemCause(lacking.code(), kNoConnection)});
    } catch (const std::exception&) {
        return abandon({kStatusNoMemory});
    }
}

Attempt HttpTransport::abandon(Attempt attempt) noexcept {
    attempt.mayHaveActed = m_wires != nullptr && m_wires->mayHaveSent();
    m_wires.reset();
    return attempt;
}

}  // namespace olmdsess
