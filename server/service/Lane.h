/// The kinds of work that a request may ask for, and who waits for whom: the one table of it.
#pragma once

#include <array>
#include <chrono>

namespace dsessd {

/// What the next step of a request is.
enum class Lane {
    kAtOnce,            ///< whatever takes little, on the thread that has read the request
    kQuick,             ///< the same, where it did take longer or another machine is asked
    kLogin,             ///< a hash of a password
    kListing,           ///< a listing that is not known to be long
    kAnonymousListing,  ///< the same without a login: it does not keep those who are logged in waiting
    kLongListing,       ///< a listing that may read or give all that there is
    kAnonymousLongListing,
    kChange,  ///< all that changes something
    kDone,
};

/// A lane has threads of its own, so that no kind of work waits for a slower one.
struct LaneRule {
    /// Its name in the metrics.
    const char* name;
    /// How many steps are done at a time, and how many of them for one host. Hosts take turns.
    unsigned threads;
    unsigned mostForOne;
    /// How long a step may wait for its turn; who comes later is told that the server is busy.
    std::chrono::milliseconds longestWait;
    /// How long it may take. A listing earns more time with each byte that it gives: kListingPerByte.
    std::chrono::milliseconds longestWork;
    /// The lane that begins a step anew when its time here is up, or when a listing has more than one piece.
    /// Lane::kDone: there is none, so a step whose time is up is refused.
    Lane longer = Lane::kDone;
};

/// A listing that gives a megabyte a second has time enough, however long it is.
inline constexpr std::chrono::microseconds kListingPerByte{1};

/// A row for each lane, in the order of the enumeration. A change may be one of a million sessions.
inline constexpr std::array<LaneRule, 8> kLanes{{
    {"at-once", 0, 0, std::chrono::seconds(10), std::chrono::milliseconds(20), Lane::kQuick},
    {"quick", 8, 8, std::chrono::seconds(10), std::chrono::seconds(30)},
    {"login", 2, 2, std::chrono::seconds(10), std::chrono::seconds(30)},
    {"listing", 2, 2, std::chrono::seconds(10), std::chrono::milliseconds(500), Lane::kLongListing},
    {"anonymous-listing", 2, 2, std::chrono::seconds(10), std::chrono::milliseconds(500), Lane::kAnonymousLongListing},
    {"long-listing", 3, 2, std::chrono::seconds(10), std::chrono::seconds(30)},
    {"anonymous-long-listing", 3, 2, std::chrono::seconds(10), std::chrono::seconds(30)},
    {"change", 8, 7, std::chrono::seconds(10), std::chrono::minutes(15)},
}};

constexpr const LaneRule& ruleOf(Lane lane) {
    return kLanes[static_cast<std::size_t>(lane)];
}

/// How many connections to a database a server can use at a time: one for each thread of a lane, and one for the
/// heartbeat.
constexpr std::size_t mostStoreConnections() {
    std::size_t most = 1;
    for (const LaneRule& rule : kLanes) {
        most += rule.threads;
    }
    return most;
}

}  // namespace dsessd
