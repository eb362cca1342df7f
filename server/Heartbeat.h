/// What a node does beside answering: a few times a minute it notes that it is there, and each second it takes over the
/// trace level that another node was told, tells the log what `dsessd admin` did, and removes sessions that have ended
/// from the store. So it is the first to notice when the store fails, and says so to the monitoring system.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "server/log/Log.h"
#include "server/metrics/Metrics.h"
#include "server/store/Store.h"

namespace dsessd {

/// Which member of which replica set a node is. Empty: none.
struct Membership {
    std::string replicaSet;
    std::string member;
};

class Heartbeat {
  public:
    /// Starts with a first contact and the present trace level. `isMonitored`: also learns, every few seconds, whether
    /// the store takes changes, and when the cluster's members were last there. Throws a std::runtime_error when there
    /// is no such replica set, and Failure.
    Heartbeat(StorePool& stores, Log& log, Metrics& metrics, Membership membership, bool isMonitored);
    /// Ends with a last contact.
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

  private:
    void run();
    void beat(bool contacts, bool isLast) noexcept;
    void look(bool contacts, bool isLast);
    void tellOfLocalActs(Store& store);
    void tellOfMembers(Store& store);
    void write(Store& store);
    void removeEnded(Store& store);
    bool succeeds(const std::function<void()>& change);
    /// Says so once while it lasts.
    void report(const std::string& problem);

    StorePool& m_stores;
    Log& m_log;
    Metrics& m_metrics;
    const Membership m_membership;
    const bool m_isMonitored;
    std::string m_problem;
    /// Whether the last change that was tried has failed.
    bool m_isReadOnly = false;
    std::optional<std::set<std::string>> m_knownActs;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::atomic<bool> m_stopping = false;
    std::thread m_thread;
};

}  // namespace dsessd
