/// Reads a cluster from JSON (dsessd(8) describes the format) into a store.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>

#include "server/store/Store.h"

namespace dsessd {

struct LoadCounts {
    std::int64_t realms = 0;
    std::int64_t replicaSets = 0;
    std::int64_t members = 0;
    std::int64_t sessions = 0;
    std::int64_t keys = 0;
    /// The number of administrators loaded. Nothing when the text does not list administrators.
    std::optional<std::int64_t> administrators;
};

/// The text is not a cluster: `line` (from 1) is where that was found out, what() why.
class LoadError : public std::runtime_error {
  public:
    LoadError(std::size_t line, const std::string& why) : std::runtime_error(why), m_line(line) {}
    std::size_t line() const { return m_line; }

  private:
    std::size_t m_line;
};

/// Called now and then with the bytes read and the records stored so far. `isRead`: all is read, and only the commit is
/// left.
using LoadProgress = std::function<void(std::uint64_t bytes, const LoadCounts& counts, bool isRead)>;

/// Replaces the store's cluster by the one in `input`, in one transaction and in constant memory. Throws LoadError or
/// Failure; nothing is changed then. Ages are taken from `now`.
LoadCounts loadCluster(std::istream& input, Store& store, Seconds now, const LoadProgress& progress);

}  // namespace dsessd
