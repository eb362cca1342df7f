/// What a node does beside answering: a few times a minute it notes that it is there, and each second it takes over the
/// trace level that another node was told, and tells the log what `dsessd admin` did.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "server/log/Log.h"
#include "server/store/Store.h"

namespace dsessd {

/// Which member of which replica set a node is. Empty: none.
struct Membership {
    std::string replicaSet;
    std::string member;
};

class Heartbeat {
  public:
    /// Starts with a first contact and the present trace level. Throws a std::runtime_error when there is no such
    /// replica set, and Failure.
    Heartbeat(StorePool& stores, Log& log, Membership membership);
    /// Ends with a last contact.
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

  private:
    void run();
    void beat(bool contacts, bool isLast) noexcept;
    void look(bool contacts, bool isLast);
    void tellOfLocalActs(Store& store);
    /// Says so once while it lasts.
    void report(const std::string& problem);

    StorePool& m_stores;
    Log& m_log;
    const Membership m_membership;
    std::string m_problem;
    std::optional<std::set<std::string>> m_knownActs;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::atomic<bool> m_stopping = false;
    std::thread m_thread;
};

}  // namespace dsessd
