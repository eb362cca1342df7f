#include "server/log/Log.h"

#include <sys/stat.h>
#include <syslog.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "runtime/QelTimeText.h"
#include "runtime/ThreadAnnotations.h"
#include "runtime/qel_io.h"

namespace dsessd {

namespace {

struct TopicTraits {
    const char* name;
    int level;
    /// How urgent the journal says that an entry is: a level of syslog(3), such as LOG_ERR.
    int priority;
};

TopicTraits traitsOf(Topic topic) {
    switch (topic) {
        case Topic::kFailure:
            return {"failure", 0, LOG_ERR};
        case Topic::kNotice:
            return {"notice", 0, LOG_NOTICE};
        case Topic::kAudit:
            return {"audit", 1, LOG_NOTICE};
        case Topic::kRequest:
            return {"request", 2, LOG_INFO};
        case Topic::kDetail:
            return {"detail", 3, LOG_DEBUG};
    }
    return {"", 0, LOG_INFO};
}

using Stamp = std::array<char, 80>;

Stamp timestamp() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const QelTimeText seconds(system_clock::to_time_t(now), "%Y-%m-%dT%H:%M:%S");
    const auto milliseconds = duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    Stamp text{};
    std::snprintf(text.data(), text.size(), "%s.%03dZ", seconds.data(), static_cast<int>(milliseconds));
    return text;
}

/// Whether a descriptor leads to the journal, which says so in JOURNAL_STREAM (systemd.exec(5)).
bool isJournal(int fd) {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    return stream != nullptr && ::fstat(fd, &status) == 0 &&
           stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

constexpr std::size_t kQueueBytes = 262'144;
/// A line that takes longer does not flow.
constexpr std::chrono::milliseconds kFlowsWithin{20};
constexpr std::chrono::seconds kPauseAfterFailure{1};
constexpr std::chrono::seconds kWaitInTheEnd{1};

}  // namespace

/// The lines on their way, in memory that is there from the start: neither adding nor writing needs more.
class Log::Queue {
  public:
    explicit Queue(int fd) : m_fd(fd), m_isJournal(isJournal(fd)) {
        m_pending.reserve(kQueueBytes);
        m_writing.reserve(kQueueBytes);
    }

    /// What a line begins with: the time and the topic. The journal has a time of its own, and takes a priority
    /// (sd-daemon(3)).
    Stamp opening(Topic topic) const {
        const TopicTraits traits = traitsOf(topic);
        Stamp text{};
        if (m_isJournal) {
            std::snprintf(text.data(), text.size(), "<%d>%s ", traits.priority, traits.name);
        } else {
            std::snprintf(text.data(), text.size(), "%.40s %s ", timestamp().data(), traits.name);
        }
        return text;
    }

    void add(std::string_view line) {
        MutexLock lock(m_mutex);
        if (m_pending.size() + line.size() > kQueueBytes) {
            ++m_dropped;
            ++m_droppedSoFar;
            return;
        }
        m_pending += line;
        const std::uint64_t number = ++m_added;
        m_changed.notify_all();
        if (m_flows) {
            m_flows = lock.waitFor(m_changed, kFlowsWithin, [&]() REQUIRES(m_mutex) { return m_written >= number; });
        }
    }

    /// Writes until the end.
    void run() {
        MutexLock lock(m_mutex);
        while (!m_done) {
            lock.wait(m_changed, [&]() REQUIRES(m_mutex) { return !m_pending.empty() || m_dropped > 0 || m_ended; });
            m_writing.swap(m_pending);
            const std::uint64_t taken = m_added;
            const std::uint64_t dropped = std::exchange(m_dropped, 0);
            lock.unlock();
            const std::uint64_t unwritten = writeLines();
            m_droppedSoFar += unwritten;
            const std::uint64_t lost = unwritten + (dropped == 0 || tellDropped(dropped) ? 0 : dropped);
            lock.lock();
            m_written = taken;
            m_dropped += lost;
            m_flows = lost == 0;
            if (lost > 0) {  // a full disk, or nobody there any more
                lock.waitFor(m_changed, kPauseAfterFailure, [&]() REQUIRES(m_mutex) { return m_ended; });
            }
            m_done = m_ended && m_pending.empty();
            m_changed.notify_all();
        }
    }

    std::uint64_t dropped() const { return m_droppedSoFar; }

    /// False: lines do not flow, and the thread may never come back.
    bool end() {
        MutexLock lock(m_mutex);
        m_ended = true;
        m_changed.notify_all();
        return lock.waitFor(m_changed, kWaitInTheEnd, [&]() REQUIRES(m_mutex) { return m_done; });
    }

  private:
    /// One call a line. Gives the number of those that could not be written.
    std::uint64_t writeLines() {
        std::uint64_t lost = 0;
        for (std::string_view rest = m_writing; !rest.empty();) {
            const std::size_t end = rest.find('\n') + 1;
            lost += qel_write(m_fd, rest.substr(0, end)) ? 0 : 1;
            rest.remove_prefix(end);
        }
        m_writing.clear();
        return lost;
    }

    bool tellDropped(std::uint64_t count) const {
        std::array<char, 200> line{};
        const int size = std::snprintf(line.data(), line.size(), "%slines that could not be written: %llu\n",
                                       opening(Topic::kFailure).data(), static_cast<unsigned long long>(count));
        return qel_write(m_fd, {line.data(), static_cast<std::size_t>(size)});
    }

    const int m_fd;
    const bool m_isJournal;
    Mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_pending GUARDED_BY(m_mutex);
    /// Only the thread that writes uses it.
    std::string m_writing;
    std::uint64_t m_added GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_written GUARDED_BY(m_mutex) = 0;
    /// Dropped lines that no line of the log has told of yet.
    std::uint64_t m_dropped GUARDED_BY(m_mutex) = 0;
    std::atomic<std::uint64_t> m_droppedSoFar = 0;
    bool m_flows GUARDED_BY(m_mutex) = true;
    bool m_ended GUARDED_BY(m_mutex) = false;
    bool m_done GUARDED_BY(m_mutex) = false;
};

Log::Log(int fd) : m_queue(std::make_shared<Queue>(fd)), m_thread([queue = m_queue] { queue->run(); }) {}

Log::~Log() {
    if (m_queue->end()) {
        m_thread.join();
    } else {
        m_thread.detach();
    }
}

std::uint64_t Log::dropped() const {
    return m_queue->dropped();
}

bool Log::wants(Topic topic) const {
    return m_level >= traitsOf(topic).level;
}

void Log::write(Topic topic, std::string_view text) {
    if (wants(topic)) {
        std::string line = m_queue->opening(topic).data();
        m_queue->add(line.append(text).append("\n"));
    }
}

void Log::failed(const char* what, const std::exception& why) noexcept {
    try {
        write(Topic::kFailure, std::string(what) + ": " + why.what());
    } catch (const std::bad_alloc&) {
        m_queue->add("no memory to say what failed\n");
    }
}

}  // namespace dsessd
