/// Carries requests of clients over HTTP to the service: a few threads wait for all connections.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "server/http/HttpLimits.h"
#include "server/http/Listener.h"
#include "server/http/Tls.h"
#include "server/log/Log.h"
#include "server/service/Service.h"

namespace dsessd {

class HttpServer {
  public:
    /// `tls`: null for plain HTTP. The service and the log must outlive the server.
    HttpServer(Service& service, Log& log, const std::vector<std::string>& instances, SslContext tls,
               const HttpLimits& limits);
    ~HttpServer();

    /// Calls `onReady` as soon as whatever is asked would be answered, and serves until `stopFd` is readable; then
    /// calls `onStop` and finishes what is in progress. When it returns, no thread of the server is left.
    void run(Listener listener, int stopFd, const std::function<void()>& onReady, const std::function<void()>& onStop);

  private:
    class Running;
    Service& m_service;
    Log& m_log;
    std::vector<std::string> m_paths;
    SslContext m_tls;
    const HttpLimits m_limits;
};

}  // namespace dsessd
