/// The server's log: standard error, one line an entry, such as
/// `2026-11-24T12:00:00.123Z audit changed: key.change by root from 127.0.0.1:50312`. In the journal the priority
/// stands in the place of the time: `<5>audit changed: ...`.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <string_view>
#include <thread>

namespace dsessd {

/// What an entry is about. The trace level decides which topics are written.
enum class Topic {
    kFailure,  ///< level 0: what an administrator has to look into
    kNotice,   ///< level 0: start and stop
    kAudit,    ///< level 1: who changed what, logins, refused identities
    kRequest,  ///< level 2: every request with method, user, outcome and duration
    kDetail,   ///< level 3: the requests' parameters; connections
};

/// Lines go through a queue to a thread that writes them, since whoever reads them may stop reading. As long as they
/// flow, a line is written when write() returns. When they do not, nobody waits: what the queue cannot hold is dropped,
/// and a line tells how many were when they flow again. Safe to use from several threads.
class Log {
  public:
    static constexpr int kMaxLevel = 9;

    /// `fd` stays the caller's, and open until the process ends.
    explicit Log(int fd);
    /// Waits a second at most for what is queued.
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    void setLevel(int level) { m_level = level; }
    /// How many lines were dropped so far.
    std::uint64_t dropped() const;
    bool wants(Topic topic) const;
    /// `text` is one line: callers pass what came from outside through harmless() first.
    void write(Topic topic, std::string_view text);
    /// A failure that is no more than logged. Does without memory where there is none.
    void failed(const char* what, const std::exception& why) noexcept;

  private:
    class Queue;
    std::atomic<int> m_level = 0;
    /// The thread owns it too: a write may block for ever, and the thread is then left behind when the log goes.
    std::shared_ptr<Queue> m_queue;
    std::thread m_thread;
};

}  // namespace dsessd
