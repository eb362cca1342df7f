/// A server instance as the operations see it: the locations to try, in which order and for how long, and what an
/// operation ends with.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/AnswerParser.h"
#include "admin/client/HttpTransport.h"
#include "admin/client/RequestWriter.h"
#include "admin/client/Trace.h"

namespace olmdsess {

/// In place of a timeout of 0.
inline constexpr std::int32_t kDefaultTimeoutSeconds = 30;

/// A method of the protocol.
struct Operation {
    const char* method;
    AnswerShape shape;
    bool changes;  ///< never sent a second time once it may have reached a server
};

/// Failover:
///  - Locations are tried in order, the one that last answered first. Each has an equal share of what is left of the
///    timeout; time in which an answer flows is nobody's.
///  - An operation that reads goes on to the next location whatever went wrong. One that changes something goes on only
///    while nothing of it can have reached a server, and once it may have, waits for its answer as long as there is
///    time.
///  - When no location gave an answer, the status names what they failed of, if that was the same for all; otherwise it
///    is kStatusNoLocation.
class Client {
  public:
    /// Throws TlsProblem, std::bad_alloc, and std::runtime_error when libcurl lacks something that is needed.
    Client(std::int32_t timeoutSeconds, std::vector<std::string> urls, const olm_dsess_admin_ssl_info_t& tlsSettings,
           Trace trace);

    /// Carries an operation out and fills `answer` on success. Returns a status: when memory runs out,
    /// kStatusOutcomeUnknown if something may have been changed. Throws std::bad_alloc before anything is sent.
    std::uint32_t perform(const Operation& operation, const olm_dsess_admin_sec_info_t& security,
                          std::span<const RequestParameter> parameters, Answer& answer);

  private:
    /// The request in hand.
    struct Request {
        const Operation& operation;
        const olm_dsess_admin_sec_info_t& security;
        std::int32_t id;
        SecretBuffer body;
    };

    /// `sent` tells, also after an exception, whether the last location tried can have got anything of the request.
    std::uint32_t tryLocations(const Request& request, Answer& answer, bool& sent);
    /// One attempt, with its answer parsed.
    Attempt tryLocation(const std::string& url, const Request& request, const AttemptLimits& limits, Answer& answer,
                        bool& sent);
    std::uint32_t statusOfAnswer(const std::string& url, const Request& request, const Answer& answer) const;
    /// Returns the status, having traced what its text leaves to say: under which name a request was sent that the
    /// server refused to that user, and `words`, the server's own, for other refusals.
    std::uint32_t explained(std::uint32_t status, const Request& request, const std::string& words) const;
    /// The head of a server's text, without the password should the server repeat it.
    static std::string excerpt(const Request& request, std::string_view text);

    const Clock::duration m_timeout;
    std::vector<std::string> m_urls;  // the one that last answered first
    const Trace m_trace;
    TlsPolicy m_tlsPolicy;
    HttpTransport m_transport;
    std::int32_t m_lastId = 0;
};

}  // namespace olmdsess
