/// What one client, and all of them together, may ask of the server.
#pragma once

#include <chrono>
#include <cstddef>

namespace dsessd {

struct HttpLimits {
    using Duration = std::chrono::milliseconds;
    /// From a request's first byte to its last, however it drips in; also for a TLS handshake.
    Duration request{10'000};
    /// Between requests, and before the first.
    Duration idle{30'000};
    /// A write that makes no progress at all.
    Duration stall{10'000};
    /// An answer may take this long and a second more for each `bytesPerSecond` taken.
    Duration answer{30'000};
    std::size_t bytesPerSecond = 250'000;
    /// Connections at a time. When there are as many, the one that has waited longest for its client makes room; when
    /// the server itself is busy with all of them, a new one gets status 503.
    std::size_t connections = 1'024;
    /// How long requests in progress may take to finish when the server is stopped.
    Duration drain{8'000};
};

}  // namespace dsessd
