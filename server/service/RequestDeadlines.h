/// How long one request may go on working: until the first of three moments. Any thread may bring two of them forward.
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

    /// The present step ends by then, unless it earns more time. Set by the thread that does the step.
    void workBy(Clock::time_point moment) { m_work = moment; }
    /// Gives the present step more time, for the progress that it has made.
    void workLonger(Clock::duration more) { m_work = m_work.load() + more; }

    Clock::time_point stop() const { return m_stop; }
    Clock::time_point leave() const { return m_leave; }
    Clock::time_point work() const { return m_work; }

  private:
    using Moment = std::atomic<Clock::time_point>;
    static void bringForward(Moment& end, Clock::time_point moment) {
        for (auto was = end.load(); moment < was && !end.compare_exchange_weak(was, moment);) {
        }
    }

    Moment m_stop = Clock::time_point::max();
    Moment m_leave = Clock::time_point::max();
    Moment m_work = Clock::time_point::max();
};

}  // namespace dsessd
