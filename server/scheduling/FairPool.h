/// A few threads that many peers ask for work.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "runtime/ThreadAnnotations.h"

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

    /// The task, not an empty one, must not throw.
    void post(std::string_view peer, Task task);

    /// Takes back a task that has waited since before a moment. Empty: there is none.
    Task takeBack(Clock::time_point before);

    struct Load {
        std::size_t waiting = 0;  ///< tasks that have not begun
        std::size_t working = 0;  ///< threads that are at work
    };
    Load load();

    /// Called by a task that takes long, to say that it does not hang.
    void getOn();
    /// Whether the pool still works: false when all its threads have been busy for longer than `within` and none has
    /// begun or ended a task or got on with one in that time.
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
    std::list<Line>::iterator next() REQUIRES(m_mutex);

    const unsigned m_mostForOne;
    Mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stopping GUARDED_BY(m_mutex) = false;
    /// How many threads are at work.
    std::size_t m_working GUARDED_BY(m_mutex) = 0;
    /// When a thread last made progress: it began a task, ended one, or said that it got on.
    Clock::time_point m_turned GUARDED_BY(m_mutex);
    /// Who has waited longest for a turn is in front.
    std::list<Line> m_lines GUARDED_BY(m_mutex);
    std::vector<std::jthread> m_threads;
};

}  // namespace dsessd
