/// One attempt to have a request answered by one location, over HTTP/1.1 (RFC 9112).
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <memory>
#include <string>

#include "admin/client/TlsPolicy.h"
#include "runtime/SecretBuffer.h"

namespace olmdsess {

using Clock = std::chrono::steady_clock;

/// What an attempt failed of.
enum class AttemptFailure {
    kNone,
    kUnreachable,    ///< no name, no connection, or one that ended before an answer began
    kTimedOut,       ///< too slow, at whatever stage
    kTls,            ///< no secure connection, or our certificate was refused
    kRefused,        ///< HTTP status 4xx: the server did not take the request
    kBusy,           ///< HTTP status 503: it did not take it now
    kNotServed,      ///< HTTP status 404: it is no session server, or has not this instance
    kFailed,         ///< HTTP status 5xx otherwise: nobody knows how far it came
    kNotUnderstood,  ///< what came is not an answer
    kNoMemory,       ///< memory ran out, with no cause in words
    kInterrupted,    ///< given up because someone asked for it (Interruption.h)
};

struct Attempt {
    AttemptFailure failure = AttemptFailure::kNone;
    std::string cause;  ///< in words, when it failed
    /// Whether a server can have carried the request out. Once some of it left, only a server that refuses it by its
    /// HTTP status says that it did not, or one that turns our certificate down in TLS 1.3, which reads none of it.
    bool mayHaveActed = false;
    std::string text;          ///< the answer, when it did not fail
    Clock::duration flowed{};  ///< how long the answer flowed well, which counts for nobody's waiting
};

/// When to give up.
struct AttemptLimits {
    Clock::time_point end;  ///< no complete head of an answer by then
    /// Half of what is left when the request leaves is enough to wait for the head: the rest is for asking again.
    bool leavesTime;
    /// A body that brings nothing for so long, or less than kLeastBytesPerSecond over so long, has stopped.
    Clock::duration silence;
};

inline constexpr long kLeastBytesPerSecond = 1024;
inline constexpr std::size_t kMaxHeadBytes = std::size_t{64} * 1024;

/// Keeps the connection of the last answer for the next request.
class HttpTransport {
  public:
    /// The policy is kept. Throws std::bad_alloc, std::runtime_error when libcurl lacks something that is needed.
    explicit HttpTransport(TlsPolicy& policy);
    ~HttpTransport();
    HttpTransport(const HttpTransport&) = delete;
    HttpTransport& operator=(const HttpTransport&) = delete;

    /// Posts `body` to `url`. A kept connection that turns out to be closed is made anew, and the request sent again.
    Attempt post(const std::string& url, const SecretBuffer& body, const AttemptLimits& limits) noexcept;

  private:
    struct MultiDeleter {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };
    struct EasyDeleter {
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };
    struct ListDeleter {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };
    using EasyPtr = std::unique_ptr<CURL, EasyDeleter>;
    /// libcurl counts how often it is set up.
    struct CurlLibrary {
        CurlLibrary();
        ~CurlLibrary();
    };

    /// A handle with all the options that requests have in common.
    EasyPtr makeEasy() const;
    /// Posts on a new connection when `fresh` is set; sets it when there was no kept connection either. `sent` counts
    /// how often any of the request can have left, also after an exception. Throws std::bad_alloc.
    Attempt perform(bool& fresh, int& sent, const std::string& url, const SecretBuffer& body,
                    const AttemptLimits& limits);

    TlsPolicy& m_policy;
    CurlLibrary m_library;
    std::unique_ptr<CURLM, MultiDeleter> m_multi;  // holds the connection
    std::unique_ptr<curl_slist, ListDeleter> m_headers;
};

}  // namespace olmdsess
