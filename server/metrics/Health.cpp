#include "server/metrics/Health.h"

#include <cstdlib>

namespace dsessd {

const char* Health::nameOf(State state) {
    switch (state) {
        case State::kOk:
            return "ok";
        case State::kNoStore:
            return "store";
        case State::kReadOnly:
            return "read-only";
        case State::kStopping:
            return "stopping";
    }
    std::abort();
}

Health::State Health::state() const {
    if (m_stopping) {
        return State::kStopping;
    }
    return std::chrono::steady_clock::now() > m_due.load() ? State::kNoStore : m_store.load();
}

}  // namespace dsessd
