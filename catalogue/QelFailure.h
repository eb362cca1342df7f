/// The one way in which a failure leaves a function of the utility that returns no status.
#pragma once

#include <cassert>
#include <cstdint>
#include <exception>

/// Carries the status that is to be shown. What else there is to tell has been written where the failure was found.
class QelFailure : public std::exception {
  public:
    /// `status` is not 0.
    explicit QelFailure(std::uint32_t status) noexcept : m_status(status) { assert(status != 0); }
    std::uint32_t status() const noexcept { return m_status; }
    const char* what() const noexcept override { return "a failed call, which has a status"; }

  private:
    std::uint32_t m_status;
};

/// Throws QelFailure unless `status` is 0: goes around a call that returns a status.
inline void qel_require(std::uint32_t status) {
    if (status != 0) {
        throw QelFailure(status);
    }
}

/// Calls `action` and returns 0, or the status of the QelFailure that it throws. Other exceptions pass.
template <class Action>
[[nodiscard]] std::uint32_t qel_status_of(Action action) {
    try {
        action();
        return 0;
    } catch (const QelFailure& failure) {
        return failure.status();
    }
}
