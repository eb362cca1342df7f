/// A server instance as the operations see it: the locations to try, in which order and for how long, and what an
/// operation ends with.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"
#include "admin/client/answer/AnswerReader.h"
#include "admin/client/base/Trace.h"
#include "admin/client/request/HttpTransport.h"
#include "admin/client/request/RequestWriter.h"

namespace olmdsess {

/// In place of a timeout of 0.
inline constexpr std::int32_t kDefaultTimeoutSeconds = 30;

/// A method of the protocol.
struct Operation {
    const char* method;
    AnswerShape shape;
    bool changes;  ///< carried out once, however often it is sent
};

/// Carries operations out at the first location of an instance that can, and remembers which one that was. It is used
/// from one thread.
///
/// Failover:
///  - Locations are tried in order, the one that last answered first. Each has an equal share of what is left of the
///    timeout. Time in which an answer arrives counts for none of them.
///  - The next location is asked whatever went wrong, but once a server may have carried a change out, its fate is
///    known only by an answer: the change is sent again, under the same identifier, by which a server knows it. It goes
///    to the same location, and to the others when an earlier answer has told which cluster it is meant for.
///  - A server that says that it cannot take a request now (HTTP status 503) may do so soon: a cluster fails over
///    within some seconds. Once one has, all locations are asked again until the time is up, with pauses, also those
///    that were out of reach: their server may be about to start again. Without such a sign nobody is kept waiting.
///  - When no location gave an answer, the status names what they failed of last, if that was the same for all;
///    otherwise it is kStatusNoLocation.
class Client {
  public:
    /// Throws Failure and std::bad_alloc.
    Client(std::int32_t timeoutSeconds, std::vector<std::string> urls, const olm_dsess_admin_ssl_info_t& tlsSettings,
           Trace trace);

    /// Carries an operation out and fills `answer` on success. Returns a status: kStatusOutcomeUnknown when something
    /// may have been changed and there is no answer to tell. Throws std::bad_alloc before anything is sent.
    std::uint32_t carryOut(const Operation& operation, const olm_dsess_admin_sec_info_t& security,
                           std::span<const RequestParameter> parameters, Answer& answer);

  private:
    /// A request, and what has become of it.
    struct Request {
        const Operation& operation;
        const olm_dsess_admin_sec_info_t& security;
        std::int32_t id;
        SecretBuffer body;
        std::vector<Attempt> failures;  ///< for each location the last one, if there is any
        bool isOpen = false;            ///< a change has been sent whose fate is not known
        bool wasBusy = false;           ///< a location could not take it just then
    };

    std::uint32_t tryLocations(Request& request, Answer& answer);
    /// Finds out whether a change was carried out that the location of this index has not answered. Sends it again
    /// until an answer tells, or the time is up. For instance:
    ///
    ///     change 4f6c…  ->  node1   the connection is reset: was it carried out or not?
    ///     change 4f6c…  ->  node1   HTTP status 503: not now
    ///                       a pause
    ///     change 4f6c…  ->  node2   its result: it has been carried out, once
    ///
    /// It is the same request each time. A server that knows the change by its identifier answers as it did then; one
    /// that does not carries it out now. Other locations than the first are asked only in the cluster that the change
    /// demands. It ends with a result, or with an error that every sending would get (isFinal). Any other error may be
    /// about the second sending alone, and says nothing of the first. Before any answer has told whether the server
    /// keeps records of changes, a request that changes nothing asks for one.
    std::uint32_t settle(std::size_t index, Clock::time_point end, Request& request, Answer& answer);
    /// Waits before locations are asked again: at most `longest`, which is doubled for the next pause, and always less
    /// than the time that is left. False: too little time is left, or somebody has interrupted the request.
    bool pause(Clock::time_point end, Clock::duration& longest) const;
    /// One attempt at the location of this index, with its answer read.
    Attempt tryLocation(std::size_t index, Request& request, Clock::time_point end, bool leavesTime, Answer& answer);
    /// Remembers which cluster the server of this answer belongs to. An error tells it as well as a result.
    void learnCluster(const Answer& answer) { m_clusterId = answer.clusterId == nullptr ? "" : answer.clusterId; }
    /// Makes the location of this index the first to ask, and returns the status that its answer means. Traces what the
    /// text of that status does not say: the user's name when the server refused that user, and the server's own words
    /// for other refusals.
    std::uint32_t finish(std::size_t index, const Request& request, const Answer& answer);
    /// Shows at once what the locations failed of, each cause in a line of its own.
    void showCauses(const Request& request) const;
    /// The head of a server's text, without the password should the server repeat it.
    static std::string excerpt(const Request& request, std::string_view text);

    const Clock::duration m_timeout;
    std::vector<std::string> m_urls;  // the one that last answered first
    const Trace m_trace;
    TlsPolicy m_tlsPolicy;
    HttpTransport m_transport;
    std::int32_t m_lastId = 0;
    // Of the last answer. A server whose answers name no cluster (it is empty) keeps no record of changes, as dsessd
    // 1.0.0. Sent again, a change would be carried out twice.
    std::optional<std::string> m_clusterId;
};

}  // namespace olmdsess
