#include "server/metrics/Health.h"

#include <array>

namespace dsessd {

const char* Health::nameOf(State state) {
    constexpr std::array<const char*, kStates> kNames{"ok", "store", "read-only", "stopping"};
    return kNames[static_cast<std::size_t>(state)];
}

Health::State Health::state() const {
    if (m_stopping) {
        return State::kStopping;
    }
    return std::chrono::steady_clock::now() > m_due.load() ? State::kNoStore : m_store.load();
}

}  // namespace dsessd
