/// Answers a monitoring system: `GET /healthz` and `GET /metrics`, over plain HTTP.
#pragma once

#include <list>
#include <string>
#include <thread>

#include "server/http/Listener.h"
#include "server/log/Log.h"
#include "server/metrics/Metrics.h"

namespace dsessd {

/// Has a listener, a thread and a loop of its own, and never waits for the store or a lane. So it answers when the
/// server is overloaded and when its store does not answer. Each connection gets one answer and a few seconds; when
/// there are too many, the oldest goes.
class Monitor {
  public:
    /// Answers from now on, until it goes. Keeps references to metrics and log. Throws std::runtime_error.
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
