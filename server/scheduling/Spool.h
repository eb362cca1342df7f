/// An answer on its way from the thread that makes it to the one that sends it. However slowly it is taken, whoever
/// makes it is done in time: what does not fit into a little memory goes to a file.
///
/// The file lies in /var/tmp and has no name, so that it is gone with the process. It holds the bytes of the later
/// pieces one behind the other and nothing else; where a piece ends is not kept. Of seven pieces of 64 KiB, the first
/// of which has been taken:
///
///     memory  22222 33333 44444 55555  256 KiB, taken first
///     file    6666677777               m_written bytes, of which m_read have been taken
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "runtime/QelFileDescriptor.h"
#include "runtime/ThreadAnnotations.h"

namespace dsessd {

/// Between one maker and one taker, each on a thread of its own. The pieces in memory come before those in the file.
class Spool {
  public:
    /// `wake` is called, on the maker's thread, when there is something after take() has said kLater. When memory is
    /// exhausted it is not, so a taker looks again every now and then.
    explicit Spool(std::function<void()> wake) : m_wake(std::move(wake)) {}
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;
    ~Spool();

    // For the maker:
    /// Waits a little for a taker who keeps up; throws std::runtime_error when there is no room in the file either.
    void append(std::string piece);
    /// No more comes. `whole`: nothing is missing.
    void end(bool whole);

    // For the taker:
    enum class Next { kPiece, kLater, kEnd, kBroken };
    Next take(std::string& piece);

  private:
    void wakeTaker() noexcept;
    void toFile(std::string_view piece) REQUIRES(m_mutex);
    Next takeFromFile(std::string& piece) REQUIRES(m_mutex);

    const std::function<void()> m_wake;
    Mutex m_mutex;
    std::condition_variable m_taken;
    std::deque<std::string> m_pieces GUARDED_BY(m_mutex);
    std::size_t m_pieceBytes GUARDED_BY(m_mutex) = 0;
    std::chrono::milliseconds m_leftToWait GUARDED_BY(m_mutex){100};
    /// Open: everything more goes there.
    QelFileDescriptor m_file GUARDED_BY(m_mutex);
    std::int64_t m_written GUARDED_BY(m_mutex) = 0;
    std::int64_t m_read GUARDED_BY(m_mutex) = 0;
    bool m_takerWaits GUARDED_BY(m_mutex) = false;
    bool m_ended GUARDED_BY(m_mutex) = false;
    bool m_whole GUARDED_BY(m_mutex) = false;
};

}  // namespace dsessd
