/// How the server is, in one word.
#pragma once

#include <atomic>
#include <chrono>

namespace dsessd {

/// Whoever looks at the store says what was found; anybody may ask what follows from it, and never waits. Safe to use
/// from several threads.
class Health {
  public:
    enum class State {
        kOk,
        kNoStore,   ///< the store cannot be used, or does not answer
        kReadOnly,  ///< the store takes no changes
        kStopping,
    };
    static constexpr int kStates = 4;
    /// As metrics and /healthz say it: `ok`, `store`, `read-only`, `stopping`.
    static const char* nameOf(State state);

    /// The store was asked something, and should have answered by then.
    void storeAsked(std::chrono::steady_clock::duration within) { m_due = std::chrono::steady_clock::now() + within; }
    /// The store has answered or failed, or will not be waited for: it is in this state.
    void storeIs(State state) {
        m_store = state;
        storeMayRest();
    }
    /// Nothing is asked any more, and the state stays.
    void storeMayRest() { m_due = std::chrono::steady_clock::time_point::max(); }
    void stop() { m_stopping = true; }

    State state() const;

  private:
    std::atomic<State> m_store = State::kNoStore;
    std::atomic<std::chrono::steady_clock::time_point> m_due = std::chrono::steady_clock::time_point::max();
    std::atomic<bool> m_stopping = false;
};

}  // namespace dsessd
