/// The one way in which the server tells that something was not done.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace dsessd {

/// The reason of a failure. `server/service/Answer.cpp` says what a client is told for each reason.
enum class Reason {
    // The store:
    kFailed,       ///< it cannot be used, or has failed in another way
    kBusy,         ///< somebody else is at work, and was waited for
    kUnavailable,  ///< it cannot do it now: out of reach, a full or failing disk, another file than the one opened
    kReplaced,     ///< the database holds another cluster than the one that was opened
    kUncertain,    ///< lost while it was committing: nobody knows whether the change is made; it may be asked for again
    kInterrupted,  ///< Store::endWhen() said so
    kOtherChange,  ///< the identifier of a change was used before, by another user or for something else
    // A request:
    kNoJson,
    kNoRequest,      ///< JSON, but not a request of JSON-RPC
    kNoMethod,       ///< there is no such method
    kInvalidParams,  ///< a parameter is missing or is not of its type
    kInvalidValue,   ///< a parameter has a value that it cannot have
    kIdentityRefused,
    kNotPermitted,
    kUnknownRealm,
    kUnknownReplicaSet,
    kNoMatchingSession,
    kOtherCluster,  ///< a change is meant for another cluster
    // The server:
    kNotNow,  ///< there is no memory, or whatever else may be there later
};

/// The exception of the server: something was not done. Nothing was changed, unless the reason is kUncertain.
class Failure : public std::runtime_error {
  public:
    /// `text`: one line for people.
    Failure(Reason reason, const std::string& text) : std::runtime_error(text), m_reason(reason) {}
    explicit Failure(const std::string& text) : Failure(Reason::kFailed, text) {}
    /// `clusterId` names the cluster that is there now.
    static Failure replaced(const std::string& text, std::string clusterId) {
        Failure failure(Reason::kReplaced, text);
        failure.m_clusterId = std::move(clusterId);
        return failure;
    }

    Reason reason() const { return m_reason; }
    /// The identifier of another cluster that the store now holds in place of ours. Empty: it holds ours.
    const std::string& clusterId() const { return m_clusterId; }

  private:
    Reason m_reason;
    std::string m_clusterId;
};

}  // namespace dsessd
