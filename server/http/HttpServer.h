/// Carries requests of clients over HTTP to the service: a few threads wait for all connections.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/http/HttpLimits.h"
#include "server/http/Listener.h"
#include "server/http/TlsInForce.h"
#include "server/log/Log.h"
#include "server/metrics/Metrics.h"
#include "server/service/Service.h"

namespace dsessd {

/// Serves connections while run() runs, with threads of its own; docs/architecture.md has the stations of a request.
class HttpServer {
  public:
    /// `tls`: null for plain HTTP. All that is referred to must outlive the server.
    HttpServer(Service& service, Log& log, Metrics& metrics, const std::vector<std::string>& instances, TlsInForce* tls,
               const HttpLimits& limits);
    ~HttpServer();

    /// Serves what comes to an open listener: calls `onReady` as soon as whatever is asked would be answered, and
    /// `onTurn` several times a second as long as no thread hangs. When `signals`, a signalfd(2), gives another signal
    /// than SIGHUP, which reloads what can be, it calls `onStop` and finishes what is in progress. When it returns, no
    /// thread of the server is left.
    void run(Listener listener, int signals, const std::function<void()>& onReady, const std::function<void()>& onTurn,
             const std::function<void()>& onStop);

  private:
    class Running;
    Service& m_service;
    Log& m_log;
    Metrics& m_metrics;
    std::vector<std::string> m_paths;
    TlsInForce* const m_tls;
    const HttpLimits m_limits;
};

}  // namespace dsessd
