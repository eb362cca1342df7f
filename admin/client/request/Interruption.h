/// Ends the operation that is running, and those to come, from a signal handler or another thread.
#pragma once

#include <chrono>

namespace olmdsess {

namespace interruption {

/// Makes what wakes a waiting operation, if there is none yet. Without it, a wait only ends when its time is up. Throws
/// std::bad_alloc when the system has no descriptor left.
void prepare();

/// Async-signal-safe; leaves errno alone.
void set(bool on) noexcept;
bool isOn() noexcept;
/// Waits so long, or until it is on. Returns isOn().
bool wait(std::chrono::milliseconds patience) noexcept;

/// Readable when `set(true)` was called since the last `rest`; -1 before `prepare`.
int descriptor() noexcept;
void rest() noexcept;

}  // namespace interruption

}  // namespace olmdsess
