/// The administration protocol (docs/protocol.md): text of a request in, text of an answer out. No sockets.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "runtime/SecretBuffer.h"
#include "server/log/Log.h"
#include "server/service/Authenticator.h"
#include "server/service/Json.h"
#include "server/service/Lane.h"
#include "server/service/Repeats.h"
#include "server/service/RequestDeadlines.h"
#include "server/store/Store.h"

namespace dsessd {

/// Where a request came from.
struct Peer {
    /// Without the port.
    std::string host;
    /// For the log.
    std::string address;
    /// Subject of the client's certificate; empty: there is none.
    std::string certificate;
};

/// The rest of a listing, produced piece by piece while it is sent, so that its size does not matter.
class ListingAnswer {
  public:
    /// `head`: what comes before the result.
    ListingAnswer(StorePool::Lease store, std::unique_ptr<Store::SessionListing> listing, std::string head);
    /// Gives the next piece of the answer, empty after the last. Throws Failure.
    std::string next();
    /// Whether the last piece was given.
    bool done() const { return m_done; }

  private:
    StorePool::Lease m_store;
    std::unique_ptr<Store::SessionListing> m_listing;
    /// Text that stands before the sessions and has not been taken yet.
    std::string m_head;
    bool m_isFirst = true;
    bool m_done = false;
};

/// An answer: a status of HTTP and the body, or its first piece.
struct Answer {
    int httpStatus = 200;
    /// With status 503: it is the store that cannot do it now.
    bool lacksStore = false;
    std::string text;
    /// How long it is to be held back.
    std::chrono::milliseconds delay{0};
    /// What follows the text, if anything.
    std::unique_ptr<ListingAnswer> rest;
};

/// Who asks before any login; no administrator bears this name.
inline constexpr char kAnonymousUser[] = "anonymous";

/// What may be done without a login.
enum class Anonymous { kNone, kRead };

/// Requests are answered in steps, so that no kind of work waits for a slower one. Safe to use from several threads at
/// a time.
class Service {
  public:
    /// The longest pattern that session.list takes, in bytes.
    static constexpr std::size_t kMaxPatternBytes = 4096;
    /// The longest identifier of a change, in bytes.
    static constexpr std::size_t kMaxChangeIdBytes = 64;

    /// One request on its way through.
    struct Call;

    Service(StorePool& stores, Authenticator& authenticator, Log& log, Anonymous anonymous);

    std::shared_ptr<Call> receive(SecretBuffer request, Peer peer, std::shared_ptr<RequestDeadlines> deadlines);
    /// Does the step of this lane and gives the next. Failures of the store are logged and answered.
    Lane advance(Call& call, Lane lane);
    /// Whether steps of Lane::kAtOnce are worth a try: not if each waits for another machine.
    bool answersAtOnce() const { return m_stores.isEmbedded(); }
    /// Who takes turns with others for the threads of a lane.
    static const std::string& peerOf(const Call& call);
    /// The answer, once it is done.
    static Answer answerOf(Call& call);

  private:
    struct Method;
    static const Method kMethods[];

    static void read(Call& call);
    Lane proceed(Call& call, Lane lane);
    bool identify(Call& call, Lane lane);
    [[noreturn]] void refuseIdentity(Call& call);
    void permit(const Call& call) const;
    static Lane laneOf(const Call& call);
    void run(Call& call);
    /// Gives the result of the method, as it stands in the answer.
    std::string perform(Call& call);
    /// The same for a change, which is made once: its result or the refusal that is kept.
    std::string change(Call& call);
    void logRequest(const Call& call);

    // The methods; each gives its result.
    boost::json::object getCluster(Call& call);
    boost::json::object getReplicaSet(Call& call);
    boost::json::object changeKey(Call& call);
    boost::json::object listSessions(Call& call);
    boost::json::object terminateSessions(Call& call);
    boost::json::object refreshSessions(Call& call);
    boost::json::object getTrace(Call& call);
    boost::json::object setTrace(Call& call);

    StorePool& m_stores;
    Authenticator& m_authenticator;
    Log& m_log;
    Anonymous m_anonymous;
    const std::string m_clusterId;
    Repeats m_guesses;
    Repeats m_failures;
};

}  // namespace dsessd
