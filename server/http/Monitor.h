/// Answers a monitoring system: `GET /healthz` and `GET /metrics`, over plain HTTP.
#pragma once

#include <list>
#include <string>
#include <thread>

#include "server/http/Listener.h"
#include "server/log/Log.h"
#include "server/metrics/Metrics.h"

namespace dsessd {

/// The server for the monitoring system. It has a socket and a thread of its own and asks neither the store nor a lane,
/// so it answers also when the server is overloaded or its store is silent. A connection gets one answer, within a few
/// seconds. When there are too many connections, the oldest is closed.
class Monitor {
  public:
    /// Answers until it is destroyed. Keeps references to metrics and log. Throws std::runtime_error.
    Monitor(Listener listener, const Metrics& metrics, Log& log);
    ~Monitor();
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    const std::string& address() const { return m_listener.address(); }

  private:
    class Peer;
    void run() noexcept;
    bool take(std::list<Peer>& peers) noexcept;
    bool goOn(Peer& peer) noexcept;

    Listener m_listener;
    const Metrics& m_metrics;
    Log& m_log;
    /// An eventfd(2) that tells the thread to end.
    QelFileDescriptor m_end;
    std::thread m_thread;
};

}  // namespace dsessd
