/// Who gives wrong passwords, and how often.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace dsessd {

/// A few mistakes cost nothing. A host that makes many waits for each refusal, so that guessing leaves time for others'
/// logins, and has one entry a minute in the log. Safe to use from several threads.
class Guesses {
  public:
    using Clock = std::chrono::steady_clock;

    struct Reaction {
        /// How long the refusal is to be held back.
        std::chrono::milliseconds delay{0};
        /// Whether it goes into the log, and how many did not that came before it.
        bool say = true;
        unsigned unsaid = 0;
    };
    /// Counts a refusal.
    Reaction failed(const std::string& host);

  private:
    static constexpr unsigned kEntriesAtFirst = 5;
    struct Record {
        unsigned failures = 0;
        unsigned unsaid = 0;
        /// How many more the log may have of this minute.
        unsigned entries = kEntriesAtFirst;
        Clock::time_point last;
        Clock::time_point minute = Clock::now();
    };

    std::mutex m_mutex;
    std::map<std::string, Record> m_records;
};

}  // namespace dsessd
