/// Counts what comes again and again, such as wrong passwords of one host, and tells when to answer and to log it.
#pragma once

#include <chrono>
#include <map>
#include <string>

#include "runtime/ThreadAnnotations.h"

namespace dsessd {

/// A few times cost nothing. What comes often is answered late, so that guessing leaves time for others' logins, and
/// has one entry a minute in the log. Safe to use from several threads.
class Repeats {
  public:
    using Clock = std::chrono::steady_clock;

    struct Reaction {
        /// How long the answer is to be held back.
        std::chrono::milliseconds delay{0};
        /// Whether it goes into the log, and how many did not that came before it.
        bool say = true;
        unsigned unsaid = 0;

        /// What the entry ends with.
        std::string rest() const { return unsaid == 0 ? "" : "; unsaid before: " + std::to_string(unsaid); }
    };
    /// `what`: a host, or whatever else tells one kind from another.
    Reaction count(const std::string& what);

  private:
    static constexpr unsigned kEntriesAtFirst = 5;
    struct Record {
        unsigned times = 0;
        unsigned unsaid = 0;
        /// How many more the log may have of this minute.
        unsigned entries = kEntriesAtFirst;
        Clock::time_point last;
        Clock::time_point minute = Clock::now();
    };

    Mutex m_mutex;
    std::map<std::string, Record> m_records GUARDED_BY(m_mutex);
};

}  // namespace dsessd
