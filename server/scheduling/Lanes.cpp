#include "server/scheduling/Lanes.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace dsessd {

namespace {

/// After a step on a loop's thread was too slow, none is tried there for so long: the loop has connections to serve.
constexpr std::chrono::milliseconds kPauseAtOnce{200};

/// Before this a lane does not count as hanging: a store that does not answer holds a step beyond its time.
constexpr std::chrono::milliseconds kHangsAtLeast{60'000};

}  // namespace

Lanes::Lanes(Service& service, Log& log, Metrics& metrics)
    : m_service(service),
      m_log(log),
      m_notAtOnceUntil(service.answersAtOnce() ? Clock::time_point::min() : Clock::time_point::max()) {
    for (const LaneRule& rule : kLanes) {
        // An SQLite file takes one change at a time, and several would wait for each other by polling.
        const bool isOne = service.answersAtOnce() && &rule == &ruleOf(Lane::kChange);
        const unsigned threads = isOne ? 1 : rule.threads;
        m_pools.emplace_back(threads, isOne ? 1 : rule.mostForOne);
        if (threads > 0) {
            m_gauges.push_back({m_pools.back(), metrics.waiting(rule.name), metrics.busyThreads(rule.name)});
            metrics.threads(rule.name).Set(threads);
        }
    }
}

Lanes::~Lanes() {
    // They post to each other, so all are stopped before the first goes.
    for (FairPool& pool : m_pools) {
        pool.stop();
    }
}

std::shared_ptr<Lanes::Job> Lanes::submit(SecretBuffer request, const Peer& peer,
                                          std::shared_ptr<RequestDeadlines> deadlines, std::function<void()> wake) {
    auto job = std::make_shared<Job>();
    job->m_call = std::make_shared<Call>(std::move(request), peer, std::move(deadlines));
    Lane lane = Lane::kQuick;
    if (Clock::now() >= m_notAtOnceUntil.load(std::memory_order_relaxed)) {
        lane = m_service.advance(*job->m_call, Lane::kAtOnce);
        if (lane == Lane::kQuick) {
            m_notAtOnceUntil = Clock::now() + kPauseAtOnce;
        }
    }
    if (lane == Lane::kDone) {
        job->answer = std::move(job->m_call->answer);
        job->m_done = true;
    } else {
        job->m_wake = std::move(wake);
        post(job, lane);
    }
    return job;
}

void Lanes::post(const std::shared_ptr<Job>& job, Lane lane) {
    m_pools[static_cast<std::size_t>(lane)].post(job->m_call->caller.peer.host, [this, job, lane] { step(job, lane); });
}

void Lanes::tick() {
    for (std::size_t lane = 0; lane < kLanes.size(); ++lane) {
        const auto before = Clock::now() - kLanes[lane].longestWait;
        while (const FairPool::Task late = m_pools[lane].takeBack(before)) {
            late();  // refuses: it has waited too long
        }
    }
    for (const Gauges& gauges : m_gauges) {
        const FairPool::Load load = gauges.pool.load();
        gauges.waiting.Set(static_cast<double>(load.waiting));
        gauges.busyThreads.Set(static_cast<double>(load.working));
    }
}

bool Lanes::turn() {
    for (std::size_t lane = 0; lane < kLanes.size(); ++lane) {
        if (!m_pools[lane].turns(std::max(kHangsAtLeast, 2 * kLanes[lane].longestWork))) {
            return false;
        }
    }
    return true;
}

void Lanes::step(const std::shared_ptr<Job>& job, Lane lane) noexcept {
    try {
        const Lane next = m_service.advance(*job->m_call, lane);
        if (next == Lane::kDone) {
            deliver(job, lane);
        } else {
            post(job, next);
        }
    } catch (const std::exception& error) {
        fail(*job, error);
    }
}

void Lanes::fail(Job& job, const std::exception& why) noexcept {
    m_log.failed("a request ended in failure", why);
    job.answer = Answer{};
    job.answer.httpStatus = 500;
    finish(job);
}

/// From here on only the one who waits for the job may use it.
void Lanes::finish(Job& job) noexcept {
    const auto wake = std::move(job.m_wake);
    job.m_done.store(true, std::memory_order_release);
    try {
        wake();
    } catch (const std::exception&) {  // whoever waits looks again
    }
}

void Lanes::deliver(const std::shared_ptr<Job>& job, Lane lane) {
    const auto deadlines = job->m_call->deadlines;
    job->answer = std::move(job->m_call->answer);
    job->m_call.reset();
    const std::unique_ptr<ListingAnswer> rest = std::move(job->answer.rest);
    if (rest == nullptr) {
        finish(*job);
        return;
    }
    const auto spool = std::make_shared<Spool>(job->m_wake);
    job->rest = spool;
    finish(*job);
    try {
        for (std::string piece; !(piece = rest->next()).empty();) {
            deadlines->workLonger(piece.size() * kListingPerByte);
            m_pools[static_cast<std::size_t>(lane)].getOn();
            spool->append(std::move(piece));
        }
        spool->end(true);
    } catch (const std::exception& error) {
        if (Clock::now() < deadlines->leave()) {
            m_log.failed("a listing broke off", error);
        }
        spool->end(false);
    }
}

}  // namespace dsessd
