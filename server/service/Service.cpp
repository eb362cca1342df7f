#include "server/service/Service.h"

#include <array>
#include <cassert>
#include <chrono>
#include <cstdio>

#include "server/service/Methods.h"

namespace dsessd {

namespace {

constexpr char kForOtherCluster[] = "The change is meant for another cluster.";

/// The lane in which a request is carried out first. A listing that is too long for it goes on to LaneRule::longer.
Lane laneOf(const Call& call) {
    const Lane lane = call.request.method()->lane;
    if (lane != Lane::kListing) {
        return lane;
    }
    const Lane listing = call.caller.role ? Lane::kListing : Lane::kAnonymousListing;
    const std::string_view pattern = call.request.parameters().value;
    // What begins with a wildcard is compared with every session of the realm. `*` alone is not: it takes them all.
    const bool readsAll = pattern.find_first_of("*?") == 0 && pattern.find_first_not_of('*') != pattern.npos;
    return readsAll ? ruleOf(listing).longer : listing;
}

/// Whether the refusal of a change is recorded under the change's identifier, so that the change is refused again when
/// it is repeated. Needed where the store's contents decide, since they may differ by then.
bool isKept(Reason reason) {
    return reason == Reason::kUnknownRealm || reason == Reason::kNoMatchingSession;
}

std::string millisecondsSince(Call::Clock::time_point start) {
    const std::chrono::duration<double, std::milli> elapsed = Call::Clock::now() - start;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f ms", elapsed.count());
    return text.data();
}

}  // namespace

Service::Service(StorePool& stores, Authenticator& authenticator, Log& log, Metrics& metrics, Anonymous anonymous)
    : m_stores(stores),
      m_authenticator(authenticator),
      m_log(log),
      m_metrics(metrics),
      m_counts(metrics),
      m_anonymous(anonymous),
      m_clusterId(stores.take()->clusterId()) {}

Lane Service::advance(Call& call, Lane lane) {
    assert(lane != Lane::kDone);
    Lane next = Lane::kDone;
    const bool isInTime = Call::Clock::now() - call.queued <= ruleOf(lane).longestWait;
    try {
        if (!isInTime) {
            throw Failure(Reason::kBusy, "the step had no turn in time");
        }
        next = takeStep(call, lane);
    } catch (const Failure& failure) {
        const bool takesTime = failure.reason() == Reason::kBusy || failure.reason() == Reason::kInterrupted;
        if (takesTime && isInTime) {
            next = ruleOf(lane).longer;
        }
        if (next == Lane::kDone) {
            refuse(call, failure);
        }
    } catch (const std::exception& failure) {
        if (call.mayHaveChanged) {
            throw;
        }
        refuse(call, Failure(Reason::kNotNow, failure.what()));
    }
    if (next == Lane::kDone) {
        m_counts.add(call.request.method(), call.answer.outcome, Call::Clock::now() - call.start);
        logRequest(call);
    }
    call.queued = Call::Clock::now();
    return next;
}

Lane Service::takeStep(Call& call, Lane lane) {
    if (!call.request.isRead()) {
        call.request.read();
        call.caller.credentials = call.request.credentials();
    }
    call.deadlines->workBy(Call::Clock::now() + ruleOf(lane).longestWork);
    StorePool::Lease store = m_stores.take([deadlines = call.deadlines, changes = lane == Lane::kChange] {
        const auto now = Call::Clock::now();
        return now > deadlines->work() || now > deadlines->stop() || (!changes && now > deadlines->leave());
    });
    if (!identify(call, *store, lane)) {
        return Lane::kLogin;
    }
    checkPermission(call);
    call.request.checkValues();
    const Lane own = laneOf(call);
    if (own != lane && ruleOf(own).longer != lane && ruleOf(lane).longer != own) {
        return own;
    }
    if (!call.request.method()->changes()) {
        return read(call, std::move(store), lane);
    }
    change(call, *store);
    return Lane::kDone;
}

/// False: a password has to be hashed first, which is done in another lane.
bool Service::identify(Call& call, Store& store, Lane lane) {
    const Credentials& credentials = call.caller.credentials;
    if (call.caller.role || credentials.areAnonymous()) {
        return true;
    }
    const auto verdict =
        lane == Lane::kLogin ? m_authenticator.verify(store, credentials) : m_authenticator.recall(store, credentials);
    if (!verdict) {
        return false;
    }
    switch (verdict->outcome) {
        case Authenticator::Outcome::kRefused:
            refuseIdentity(call);
        case Authenticator::Outcome::kVerified:
            m_metrics.verifiedLogins.Increment();
            m_log.write(Topic::kAudit, "login of " + call.caller.description());
            break;
        case Authenticator::Outcome::kRemembered:
            break;
    }
    call.caller.role = verdict->role;
    return true;
}

void Service::refuseIdentity(Call& call) {
    m_metrics.refusedLogins.Increment();
    const Repeats::Reaction reaction = m_guesses.count(call.caller.peer.host);
    call.answer.delay = reaction.delay;
    if (reaction.say) {
        m_log.write(Topic::kAudit, "identity refused: " + call.caller.description() + reaction.rest());
    }
    throw Failure(Reason::kIdentityRefused, "The user is unknown or the password is wrong.");
}

void Service::checkPermission(const Call& call) const {
    const bool changes = call.request.method()->changes();
    if (!call.caller.role && (m_anonymous == Anonymous::kNone || changes)) {
        throw Failure(Reason::kNotPermitted, "This needs a login.");
    }
    if (call.caller.role == Role::kRead && changes) {
        throw Failure(Reason::kNotPermitted, "This administrator may not change anything.");
    }
}

/// Gives the lane of the next step; Lane::kDone: the answer is there.
Lane Service::read(Call& call, StorePool::Lease store, Lane lane) {
    MethodResult result = call.request.method()->run(call.request, *store);
    std::string begun = beginAnswer(call.request.id(), m_clusterId);
    if (result.listing == nullptr) {
        call.answer.text = begun + resultText(result.object) + '}';
        return Lane::kDone;
    }
    auto listing = std::make_unique<ListingAnswer>(std::move(store), std::move(result.listing), std::move(begun));
    std::string text = listing->next();
    if (!listing->done()) {
        if (const Lane longer = ruleOf(lane).longer; longer != Lane::kDone) {
            return longer;
        }
        call.answer.rest = std::move(listing);
    }
    call.answer.text = std::move(text);
    return Lane::kDone;
}

/// Makes a change once: its answer is its result, the refusal that is kept, or either as it was recorded before.
void Service::change(Call& call, Store& store) {
    const Request& request = call.request;
    if (const std::string_view cluster = request.parameters().clusterId; !cluster.empty() && cluster != m_clusterId) {
        throw Failure(Reason::kOtherCluster, kForOtherCluster);
    }
    const std::string digest = request.digest();
    MethodResult result;
    call.answer.outcome = outcome::kDoneBefore;
    call.mayHaveChanged = true;
    const std::string said = store.once({request.parameters().changeId, request.parameters().user, digest}, [&] {
        call.answer.outcome = outcome::kDone;
        try {
            result = request.method()->run(request, store);
            return resultText(result.object);
        } catch (const Failure& failure) {
            if (!isKept(failure.reason())) {
                throw;
            }
            result = {};
            call.answer.outcome = errorName(failure.reason());
            return errorText(failure);
        }
    });
    if (!result.changed.empty()) {
        if (result.traceLevel) {
            m_log.setLevel(*result.traceLevel);
        }
        m_log.write(result.topic, "changed: " + result.changed + ", by " + call.caller.description());
    }
    call.answer.text = beginAnswer(request.id(), m_clusterId) + said + '}';
}

void Service::refuse(Call& call, const Failure& failure) {
    m_metrics.count(failure);
    if (isForTheLog(failure.reason())) {
        const bool isOfStore = failure.reason() != Reason::kNotNow;
        const std::string text =
            (isOfStore ? "the store failed: " : "a request cannot be answered now: ") + std::string(failure.what());
        if (const Repeats::Reaction reaction = m_failures.count(text); reaction.say) {
            m_log.write(Topic::kFailure, text + reaction.rest());
        }
    }
    if (failure.reason() == Reason::kReplaced && !call.request.parameters().clusterId.empty()) {
        call.answer.refuse(call.request.id(), failure.clusterId(), Failure(Reason::kOtherCluster, kForOtherCluster));
    } else {
        call.answer.refuse(call.request.id(), m_clusterId, failure);
    }
}

void Service::logRequest(const Call& call) {
    if (!m_log.wants(Topic::kRequest)) {
        return;
    }
    const Method* method = call.request.method();
    m_log.write(Topic::kRequest, (method == nullptr ? "a message" : method->name) +
                                     (" by " + call.caller.description() + ": ") + call.answer.outcome + ", " +
                                     millisecondsSince(call.start));
    if (method != nullptr && !method->takes.empty()) {
        m_log.write(Topic::kDetail, call.request.description());
    }
}

}  // namespace dsessd
