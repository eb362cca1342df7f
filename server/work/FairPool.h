/// A few threads that many peers ask for work.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace dsessd {

/// Peers take turns, so that one who asks for much waits behind its own tasks and not before everybody else's.
class FairPool {
  public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    /// `mostForOne`: how many of the threads one peer may have at a time.
    FairPool(unsigned threads, unsigned mostForOne);
    FairPool(const FairPool&) = delete;
    FairPool& operator=(const FairPool&) = delete;
    ~FairPool() { stop(); }

    /// Waits for the tasks in progress. Those that have not begun are dropped, and so are those posted afterwards.
    void stop();

    /// The task must not throw.
    void post(std::string_view peer, Task task);

    /// Takes back a task that has waited since before a moment. Empty: there is none.
    Task takeBack(Clock::time_point before);

    /// False: all threads have been at work for so long without beginning or ending a task.
    bool turns(Clock::duration within);

  private:
    struct Waiting {
        Task task;
        Clock::time_point since;
    };
    /// What one peer waits for.
    struct Line {
        std::string peer;
        std::deque<Waiting> tasks;
        unsigned running = 0;
    };

    void work();
    std::list<Line>::iterator next();

    const unsigned m_mostForOne;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stopping = false;
    /// How many threads are at work, and when the last one has begun or ended a task.
    std::size_t m_working = 0;
    Clock::time_point m_turned;
    /// Who has waited longest for a turn is in front.
    std::list<Line> m_lines;
    std::vector<std::jthread> m_threads;
};

}  // namespace dsessd
