/// Takes requests through the service, each step on the threads of its lane.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "server/metrics/Metrics.h"
#include "server/scheduling/FairPool.h"
#include "server/scheduling/Spool.h"
#include "server/service/Service.h"

namespace dsessd {

class Lanes {
  public:
    using Clock = std::chrono::steady_clock;

    /// One request on its way. Belongs to whoever waits for its answer, and to the lane that it is in.
    class Job {
      public:
        /// Whether the answer is there: its status and text, and what follows the text, if anything.
        bool done() const { return m_done.load(std::memory_order_acquire); }
        Answer answer;
        std::shared_ptr<Spool> rest;

      private:
        friend class Lanes;
        std::shared_ptr<Call> m_call;
        std::function<void()> m_wake;
        std::atomic<bool> m_done = false;
    };

    /// Starts the threads of all lanes. Keeps references to all three.
    Lanes(Service& service, Log& log, Metrics& metrics);
    ~Lanes();
    Lanes(const Lanes&) = delete;
    Lanes& operator=(const Lanes&) = delete;

    /// Gives the job of a request, which may be done already. `wake` is called, on some thread, when it is done later,
    /// and when the spool of its answer has more. When memory is exhausted it may fail to, so whoever waits looks again
    /// every now and then. No job is done any more once the lanes are gone.
    std::shared_ptr<Job> submit(SecretBuffer request, const Peer& peer, std::shared_ptr<RequestDeadlines> deadlines,
                                std::function<void()> wake);

    /// To be called now and then: answers those who have waited too long for their turn, and tells the metrics how many
    /// wait.
    void tick();
    /// False: a lane hangs. All its threads are at work, and none has got on for a minute, or for twice the time that a
    /// step of the lane may take where that is longer.
    bool turn();

  private:
    void post(const std::shared_ptr<Job>& job, Lane lane);
    void step(const std::shared_ptr<Job>& job, Lane lane) noexcept;
    void deliver(const std::shared_ptr<Job>& job, Lane lane);
    void fail(Job& job, const std::exception& why) noexcept;
    static void finish(Job& job) noexcept;

    Service& m_service;
    Log& m_log;
    /// What was to be done at once took too long: until then nothing is.
    std::atomic<Clock::time_point> m_notAtOnceUntil;
    std::deque<FairPool> m_pools;
    struct Gauges {
        FairPool& pool;
        prometheus::Gauge& waiting;
        prometheus::Gauge& busyThreads;
    };
    std::vector<Gauges> m_gauges;
};

}  // namespace dsessd
