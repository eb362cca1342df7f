/// The server's log: standard error, one line an entry, such as
/// `2026-11-24T12:00:00.123Z audit changed: key.change by root from 127.0.0.1:50312`.
#pragma once

#include <atomic>
#include <exception>
#include <mutex>
#include <string_view>

namespace dsessd {

/// What an entry is about. The trace level decides which topics are written.
enum class Topic {
    kFailure,  ///< level 0: what an administrator has to look into
    kNotice,   ///< level 0: start and stop
    kAudit,    ///< level 1: who changed what, logins, refused identities
    kRequest,  ///< level 2: every request with method, user, outcome and duration
    kDetail,   ///< level 3: the requests' parameters; connections
};

/// Safe to use from several threads.
class Log {
  public:
    static constexpr int kMaxLevel = 9;

    /// `fd` stays the caller's.
    explicit Log(int fd) : m_fd(fd) {}

    void setLevel(int level) { m_level = level; }
    bool wants(Topic topic) const;
    /// `text` is one line: callers pass what came from outside through harmless() first.
    void write(Topic topic, std::string_view text);
    /// A failure that is no more than logged. Does without memory where there is none.
    void failed(const char* what, const std::exception& why) noexcept;

  private:
    int m_fd;
    std::atomic<int> m_level = 0;
    std::mutex m_mutex;
};

}  // namespace dsessd
