#include "server/service/Repeats.h"

#include <algorithm>
#include <utility>

namespace dsessd {

namespace {

constexpr unsigned kForgiven = 40;
/// For each, one time is forgotten.
constexpr std::chrono::seconds kForgetOne{1};
constexpr std::chrono::seconds kDelay{3};
constexpr std::chrono::minutes kBetweenEntries{1};
constexpr std::size_t kKinds = 10'000;

}  // namespace

Repeats::Reaction Repeats::count(const std::string& what) {
    const auto now = Clock::now();
    const MutexLock lock(m_mutex);
    if (m_records.size() >= kKinds) {
        std::erase_if(m_records, [&](const auto& entry) { return now - entry.second.last > kForgiven * kForgetOne; });
    }
    if (m_records.size() >= kKinds) {
        return {kDelay, false, 0};
    }
    Record& record = m_records[what];
    const auto forgotten = (now - record.last) / kForgetOne;
    record.times -= static_cast<unsigned>(std::min<std::int64_t>(record.times, forgotten));
    record.last = now;
    Reaction reaction;
    if (record.times < kForgiven) {
        ++record.times;
    } else {
        reaction.delay = kDelay;
    }
    if (now - record.minute >= kBetweenEntries) {
        record.minute = now;
        record.entries = record.unsaid == 0 ? kEntriesAtFirst : 1;
    }
    reaction.say = record.entries > 0;
    if (reaction.say) {
        --record.entries;
        reaction.unsaid = std::exchange(record.unsaid, 0);
    } else {
        ++record.unsaid;
    }
    return reaction;
}

}  // namespace dsessd
