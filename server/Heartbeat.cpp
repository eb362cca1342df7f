#include "server/Heartbeat.h"

#include <chrono>
#include <stdexcept>

#include "server/log/Text.h"

namespace dsessd {

namespace {

constexpr std::chrono::seconds kLookEvery{1};
constexpr int kLooksForContact = 5;
/// Longer than the store waits for another process by itself, which is no failure.
constexpr std::chrono::seconds kWaitAtMost{15};
constexpr std::chrono::seconds kWaitAtMostInTheEnd{1};

}  // namespace

Heartbeat::Heartbeat(StorePool& stores, Log& log, Membership membership)
    : m_stores(stores), m_log(log), m_membership(std::move(membership)) {
    const StorePool::Lease store = stores.take();
    log.setLevel(store->traceLevel());
    tellOfLocalActs(*store);
    const Membership& own = m_membership;
    if (!own.member.empty() && !store->contact(own.replicaSet, {own.member, presentTime()})) {
        throw std::runtime_error("there is no replica set " + harmless(own.replicaSet) + " to be a member of");
    }
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
    try {
        const auto end = std::chrono::steady_clock::now() + (isLast ? kWaitAtMostInTheEnd : kWaitAtMost);
        const auto store = m_stores.take(
            [this, end, isLast] { return std::chrono::steady_clock::now() > end || (m_stopping && !isLast); });
        m_log.setLevel(store->traceLevel());
        tellOfLocalActs(*store);
        const Membership& own = m_membership;
        const bool known =
            !contacts || own.member.empty() || store->contact(own.replicaSet, {own.member, presentTime()});
        if (!known) {
            report("there is no replica set " + harmless(own.replicaSet) + " any more to be a member of");
        } else if (contacts) {
            m_problem.clear();
        }
    } catch (const Failure& failure) {
        if (failure.reason() == Reason::kInterrupted) {
            if (!m_stopping) {
                report("the store does not answer");
            }
        } else if (failure.reason() != Reason::kBusy) {  // with a load, which ends
            report(std::string("the store failed: ") + failure.what());
        }
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

void Heartbeat::report(const std::string& problem) {
    if (problem != m_problem) {
        m_problem = problem;
        m_log.write(Topic::kFailure, problem);
    }
}

}  // namespace dsessd
