/// The administration protocol (docs/protocol.md): a request in, its answer out. It knows nothing of sockets.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "server/log/Log.h"
#include "server/metrics/Metrics.h"
#include "server/service/Answer.h"
#include "server/service/Authenticator.h"
#include "server/service/Caller.h"
#include "server/service/Lane.h"
#include "server/service/Repeats.h"
#include "server/service/Request.h"
#include "server/service/RequestCounts.h"
#include "server/service/RequestDeadlines.h"
#include "server/store/Store.h"

namespace dsessd {

/// One request on its way through the service: what it was asked, who asks, what is answered. Used by one thread at a
/// time.
struct Call {
    using Clock = RequestDeadlines::Clock;

    Call(SecretBuffer text, Peer peer, std::shared_ptr<RequestDeadlines> until)
        : request(std::move(text)), caller{std::move(peer), {}, {}}, deadlines(std::move(until)) {}

    Request request;
    Caller caller;
    Answer answer;

    const std::shared_ptr<RequestDeadlines> deadlines;
    /// When the request came.
    const Clock::time_point start = Clock::now();
    /// When its next step began to wait for a thread.
    Clock::time_point queued = start;
    /// Whether a change may have been made.
    bool mayHaveChanged = false;
};

/// Answers requests, each in steps, so that no kind of work waits for a slower one. Safe to use from several threads at
/// a time.
class Service {
  public:
    /// Keeps references to all but the last.
    Service(StorePool& stores, Authenticator& authenticator, Log& log, Metrics& metrics, Anonymous anonymous);

    /// Does the step of this lane, any but Lane::kDone, and gives the lane of the next; Lane::kDone: the answer is
    /// there. What fails is logged and answered. Throws when memory is exhausted while a change may have been made.
    Lane advance(Call& call, Lane lane);
    /// Whether a step may be tried at once on the loop's thread. Not with a database: each step would wait for it.
    bool answersAtOnce() const { return m_stores.isEmbedded(); }

  private:
    Lane takeStep(Call& call, Lane lane);
    bool identify(Call& call, Store& store, Lane lane);
    [[noreturn]] void refuseIdentity(Call& call);
    void checkPermission(const Call& call) const;
    Lane read(Call& call, StorePool::Lease store, Lane lane);
    void change(Call& call, Store& store);
    void refuse(Call& call, const Failure& failure);
    void logRequest(const Call& call);

    StorePool& m_stores;
    Authenticator& m_authenticator;
    Log& m_log;
    Metrics& m_metrics;
    RequestCounts m_counts;
    const Anonymous m_anonymous;
    const std::string m_clusterId;
    /// Wrong passwords by host, and failures by what they are.
    Repeats m_guesses;
    Repeats m_failures;
};

}  // namespace dsessd
