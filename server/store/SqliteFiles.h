/// What a process knows of the files of its SQLite store: which they are, how long, and whether they hold what it
/// wrote.
#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "runtime/ThreadAnnotations.h"

namespace dsessd {

/// Notices that the data file or its write-ahead log was removed, replaced or cut while it is in use: what is written
/// to it then is gone with the last connection. One for all connections of a process, safe to use from several threads.
class SqliteFiles {
  public:
    /// The file exists. What is found at its path now is what check() looks for.
    explicit SqliteFiles(std::string path) : m_path(std::move(path)) {}

    const std::string& path() const { return m_path; }

    /// `connection`: one to these files that is in no transaction. Throws Reason::kUnavailable, which says what is
    /// wrong.
    void check(sqlite3* connection);
    /// The same, unless it was done a moment ago, by whatever connection: for what only reads.
    void checkNowAndThen(sqlite3* connection);
    /// After a commit: so many pages of this size are in the log.
    void sawLog(int pages, std::int64_t pageBytes);

    /// A commit has failed whose pages may be in the log: they would count after a crash. The next commit that succeeds
    /// takes their place.
    void doubt() { ++m_doubts; }
    std::uint64_t doubts() const { return m_doubts; }
    bool isInDoubt() const { return m_doubts != m_settled; }
    /// A commit succeeded that began when there were so many doubts.
    void settle(std::uint64_t doubts) { m_settled = doubts; }

  private:
    using Identity = std::pair<dev_t, ino_t>;
    /// Gives the length.
    static std::int64_t look(const std::string& path, std::optional<Identity>& known);

    using Clock = std::chrono::steady_clock;
    const std::string m_path;
    /// When all was well.
    std::atomic<Clock::time_point> m_checkedAt = Clock::time_point::min();
    Mutex m_mutex;
    std::optional<Identity> m_data GUARDED_BY(m_mutex);
    std::optional<Identity> m_log GUARDED_BY(m_mutex);
    std::int64_t m_dataBytes GUARDED_BY(m_mutex) = 0;
    std::atomic<std::int64_t> m_logBytes = 0;
    /// Where the last page begins that was in the log when it was looked at. 0: there was none.
    std::int64_t m_lastPageAt GUARDED_BY(m_mutex) = 0;
    std::atomic<std::int64_t> m_newestPageAt = 0;
    std::atomic<std::uint64_t> m_doubts = 0;
    std::atomic<std::uint64_t> m_settled = 0;
};

}  // namespace dsessd
