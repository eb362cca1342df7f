#include "server/Heartbeat.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "server/log/Text.h"

namespace dsessd {

namespace {

constexpr std::chrono::seconds kLookEvery{1};
constexpr int kLooksForContact = 5;
/// How long one look may remove sessions, and the shortest pause between two removals.
constexpr std::chrono::milliseconds kRemoveFor{700};
constexpr std::chrono::milliseconds kRest{20};
/// Longer than the store waits for another process by itself, which is no failure.
constexpr std::chrono::seconds kWaitAtMost{15};
constexpr std::chrono::seconds kWaitAtMostInTheEnd{1};
/// A store that takes longer than this is reported as silent. A change takes longer, since it waits for other changes.
constexpr std::chrono::seconds kReadsWithin{3};
constexpr std::chrono::seconds kWritesWithin{20};
/// The most members whose age is told to a monitoring system, which keeps a time series for each. When there are more,
/// none is told.
constexpr std::size_t kMostMembers = 1000;

}  // namespace

Heartbeat::Heartbeat(StorePool& stores, Log& log, Metrics& metrics, Membership membership, bool isMonitored)
    : m_stores(stores),
      m_log(log),
      m_metrics(metrics),
      m_membership(std::move(membership)),
      m_isMonitored(isMonitored) {
    const StorePool::Lease store = stores.take();
    log.setLevel(store->traceLevel());
    tellOfLocalActs(*store);
    const Membership& own = m_membership;
    if (!own.member.empty() && !store->contact(own.replicaSet, {own.member, presentTime()})) {
        throw std::runtime_error("there is no replica set " + harmless(own.replicaSet) + " to be a member of");
    }
    if (isMonitored) {
        tellOfMembers(*store);
    }
    m_metrics.health.storeIs(Health::State::kOk);
    m_thread = std::thread([this] { run(); });
}

Heartbeat::~Heartbeat() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_one();
    m_thread.join();
    beat(true, true);
}

void Heartbeat::run() {
    std::unique_lock lock(m_mutex);
    for (int look = 1; !m_changed.wait_for(lock, kLookEvery, [&] { return m_stopping.load(); }); ++look) {
        lock.unlock();
        beat(look % kLooksForContact == 0, false);
        lock.lock();
    }
}

void Heartbeat::beat(bool contacts, bool isLast) noexcept {
    try {
        look(contacts, isLast);
    } catch (const std::exception& error) {
        m_log.failed("a look at the store failed", error);
    }
}

void Heartbeat::look(bool contacts, bool isLast) {
    Health& health = m_metrics.health;
    bool isLeased = false;
    try {
        const auto end = std::chrono::steady_clock::now() + (isLast ? kWaitAtMostInTheEnd : kWaitAtMost);
        health.storeAsked(kReadsWithin);
        const auto store = m_stores.take([this, end, isLast, &isLeased] {
            if (!isLeased) {  // to wait for a connection that somebody uses tells nothing of the store
                m_metrics.health.storeAsked(kReadsWithin);
            }
            return std::chrono::steady_clock::now() > end || (m_stopping && !isLast);
        });
        isLeased = true;
        m_log.setLevel(store->traceLevel());
        tellOfLocalActs(*store);
        if (m_isMonitored && contacts) {
            tellOfMembers(*store);
        }
        health.storeIs(m_isReadOnly ? Health::State::kReadOnly : Health::State::kOk);
        if (contacts) {
            write(*store);
        }
        if (!m_isReadOnly) {
            removeEnded(*store);
        }
    } catch (const Failure& failure) {
        const bool isInterrupted = failure.reason() == Reason::kInterrupted;
        if (failure.reason() == Reason::kBusy || (isInterrupted && m_stopping)) {  // busy with a load, which ends
            health.storeMayRest();
            return;
        }
        health.storeIs(Health::State::kNoStore);
        m_metrics.count(failure);
        report(isInterrupted ? "the store does not answer" : std::string("the store failed: ") + failure.what());
    }
}

/// Notes the last contact. A node that is no member, but monitored, only tries whether the store takes changes.
void Heartbeat::write(Store& store) {
    Health& health = m_metrics.health;
    const Membership& own = m_membership;
    bool isKnown = true;
    health.storeAsked(kWritesWithin);
    const auto note = [&] {
        if (!own.member.empty()) {
            isKnown = store.contact(own.replicaSet, {own.member, presentTime()});
        } else if (m_isMonitored) {
            store.tryWriting();
        }
    };
    if (!succeeds(note)) {
        return;
    }
    m_isReadOnly = false;
    health.storeIs(Health::State::kOk);
    if (isKnown) {
        m_problem.clear();
    } else {
        report("there is no replica set " + harmless(own.replicaSet) + " any more to be a member of");
    }
}

/// Removes sessions that have ended, step by step. After each step it pauses for as long as the step took, so that
/// others get their turn.
void Heartbeat::removeEnded(Store& store) {
    using Clock = std::chrono::steady_clock;
    succeeds([&] {
        const auto end = Clock::now() + kRemoveFor;
        for (auto begun = Clock::now(); !m_stopping && begun < end && store.removeEnded(); begun = Clock::now()) {
            std::this_thread::sleep_for(std::max<Clock::duration>(kRest, Clock::now() - begun));
        }
    });
}

/// Whether the store takes a change.
bool Heartbeat::succeeds(const std::function<void()>& change) {
    try {
        change();
        return true;
    } catch (const Failure& failure) {
        if (failure.reason() == Reason::kBusy || failure.reason() == Reason::kInterrupted) {
            throw;
        }
        m_isReadOnly = true;  // it was read a moment ago
        m_metrics.health.storeIs(Health::State::kReadOnly);
        m_metrics.count(failure);
        report(std::string("the store takes no changes: ") + failure.what());
        return false;
    }
}

/// Logs the acts that were not known at the last look. What was recorded before this node started, the nodes that ran
/// then have logged.
void Heartbeat::tellOfLocalActs(Store& store) {
    std::set<std::string> present;
    for (const Store::LocalAct& act : store.localActs()) {
        if (m_knownActs && !m_knownActs->contains(act.id)) {
            m_log.write(Topic::kAudit, harmless(act.text, 1024));
        }
        present.insert(act.id);
    }
    m_knownActs = std::move(present);
}

void Heartbeat::tellOfMembers(Store& store) {
    std::vector<Metrics::Contact> contacts;
    for (const Realm& realm : store.cluster().realms) {
        for (const std::string& set : realm.replicaSets) {
            for (Member& member : store.members(set).value_or(std::vector<Member>())) {
                contacts.push_back({set, std::move(member.name), member.lastContact});
            }
            if (contacts.size() > kMostMembers) {
                m_metrics.setContacts({});
                return;
            }
        }
    }
    m_metrics.setContacts(std::move(contacts));
}

void Heartbeat::report(const std::string& problem) {
    if (problem != m_problem) {
        m_problem = problem;
        m_log.write(Topic::kFailure, problem);
    }
}

}  // namespace dsessd
