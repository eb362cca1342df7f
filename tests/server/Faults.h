/// What the libraries ask of the system and of each other, stood in for, so that a test can make it fail.
#pragma once

#include <atomic>
#include <chrono>

struct Faults {
    std::atomic<int> syncs = 0;
    /// To the disk, what is written does not get; for a digest or a hash of a password there is no memory.
    std::atomic<bool> noSync = false;
    std::atomic<bool> noDigest = false;
    std::atomic<bool> noHash = false;
    /// How far the time of day, and the clock that nobody sets, are ahead.
    std::atomic<std::chrono::seconds> dayAhead{};
    std::atomic<std::chrono::seconds> clockAhead{};
};
extern Faults g_faults;
