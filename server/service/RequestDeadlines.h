/// How long one request may go on working: until two moments that any thread may bring forward.
#pragma once

#include <atomic>
#include <chrono>

namespace dsessd {

class RequestDeadlines {
  public:
    using Clock = std::chrono::steady_clock;

    /// The server stops: everything ends by then.
    void stopBy(Clock::time_point moment) { bringForward(m_stop, moment); }
    /// Nobody waits for the answer any more: what changes nothing ends by then.
    void leaveBy(Clock::time_point moment) { bringForward(m_leave, moment); }

    Clock::time_point stop() const { return m_stop; }
    Clock::time_point leave() const { return m_leave; }

  private:
    using Moment = std::atomic<Clock::time_point>;
    static void bringForward(Moment& end, Clock::time_point moment) {
        for (auto was = end.load(); moment < was && !end.compare_exchange_weak(was, moment);) {
        }
    }

    Moment m_stop = Clock::time_point::max();
    Moment m_leave = Clock::time_point::max();
};

}  // namespace dsessd
