/// The health of the server in one word, as /healthz and the metrics tell it.
#pragma once

#include <atomic>
#include <chrono>

namespace dsessd {

/// Keeps the state of the store that was seen last, and whether the server is stopping. Heartbeat writes it; the
/// monitor reads it without waiting. Safe to use from several threads.
class Health {
  public:
    enum class State {
        kOk,
        kNoStore,   ///< the store cannot be used, or does not answer
        kReadOnly,  ///< the store takes no changes
        kStopping,
    };
    static constexpr State kStates[] = {State::kOk, State::kNoStore, State::kReadOnly, State::kStopping};
    /// As metrics and /healthz say it: `ok`, `store`, `read-only`, `stopping`.
    static const char* nameOf(State state);

    /// The store was asked something. When it has not answered within this time, it counts as silent.
    void storeAsked(std::chrono::steady_clock::duration within) { m_due = std::chrono::steady_clock::now() + within; }
    /// The store is in this state, and owes no answer.
    void storeIs(State state) {
        m_store = state;
        storeMayRest();
    }
    /// The store owes no answer any more. The state stays as it was.
    void storeMayRest() { m_due = std::chrono::steady_clock::time_point::max(); }
    void stop() { m_stopping = true; }

    State state() const;

  private:
    std::atomic<State> m_store = State::kNoStore;
    std::atomic<std::chrono::steady_clock::time_point> m_due = std::chrono::steady_clock::time_point::max();
    std::atomic<bool> m_stopping = false;
};

}  // namespace dsessd
