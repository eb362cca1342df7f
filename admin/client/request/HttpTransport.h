/// One attempt to have a request answered by one location, over HTTP/1.1 (RFC 9112).
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "admin/client/answer/AnswerReader.h"
#include "admin/client/tls/TlsPolicy.h"
#include "runtime/SecretBuffer.h"

namespace olmdsess {

using Clock = std::chrono::steady_clock;

/// How an attempt to post a request ended.
struct Attempt {
    std::uint32_t status = 0;  ///< 0: there is an answer
    std::string cause{};       ///< in words, when it failed; empty if memory ran out
    /// The server said that it cannot take the request now (HTTP status 503).
    bool isBusy = false;
    /// Whether a server can have carried the request out. Once a byte of it left, only a server that refuses it by its
    /// HTTP status says that it did not, or one that turns our certificate down in TLS 1.3, which reads none of it.
    bool mayHaveActed = false;
    Clock::duration flowed{};  ///< how long the answer flowed well; the caller takes it off the time that it waited
};

/// When to give up.
struct AttemptLimits {
    Clock::time_point end;  ///< no answer by then
    /// Half of what is left when the request leaves is enough to wait for the answer: the rest is for asking again.
    bool leavesTime;
    /// Whether the answer may be long. Once it has begun, it may then take as long as it flows.
    bool mayFlow;
    /// A body that brings nothing for so long, or less than kLeastBytesPerSecond over so long, has stopped.
    Clock::duration silence;
};

inline constexpr long kLeastBytesPerSecond = 1024;

/// Posts requests to locations over HTTP(S). The connection that the last answer came from is kept, and used again when
/// the next request goes to the same location. All its work is done inside post(); nothing runs between two calls. In a
/// child process, after fork(2), it makes new connections.
class HttpTransport {
  public:
    /// The policy is kept. Nothing is made before the first attempt: not every run has one.
    explicit HttpTransport(const TlsPolicy& policy);
    ~HttpTransport();
    HttpTransport(const HttpTransport&) = delete;
    HttpTransport& operator=(const HttpTransport&) = delete;

    /// Posts `body` to `url` and has the answer's bytes read by `reader`, which must be new. After success the reader
    /// has the whole answer. A kept connection that turns out to be closed is made anew, and the request sent again.
    Attempt post(const std::string& url, const SecretBuffer& body, const AttemptLimits& limits,
                 AnswerReader& reader) noexcept;

  private:
    class Wires;

    /// Ends an attempt that an exception has left. What it used may be in any state.
    Attempt abandon(Attempt attempt) noexcept;

    const TlsPolicy& m_policy;
    std::unique_ptr<Wires> m_wires;  // null: to be made by the next attempt
};

}  // namespace olmdsess
