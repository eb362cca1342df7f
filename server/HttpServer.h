/// Carries requests of clients over HTTP to the service.
///
/// The HTTP library parses requests and writes answers. Sockets, threads, TLS and every bound on time, size and number
/// are here, since the library's own bounds hold for single reads only: a client that drips bytes would keep a thread
/// for as long as it likes.
#pragma once

#include <httplib.h>

#include <condition_variable>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "server/Connection.h"
#include "server/Listener.h"
#include "server/Log.h"
#include "server/Service.h"
#include "server/Tls.h"

namespace dsessd {

struct HttpLimits {
    ConnectionLimits connection;
    /// Connections at a time, each with its thread. When there are as many, the one that has waited longest for its
    /// client makes room; when the server itself stays busy with all of them, a new one gets status 503.
    std::size_t connections = 200;
    /// How long a new connection waits for room.
    std::chrono::milliseconds room{2'000};
    /// How long requests in progress may take to finish when the server is stopped.
    std::chrono::milliseconds drain{10'000};
};

class HttpServer : private httplib::Server {
  public:
    /// `tls`: null for plain HTTP. All arguments but the names must outlive the server.
    HttpServer(Service& service, Log& log, const std::vector<std::string>& instances, SSL_CTX* tls,
               const HttpLimits& limits);

    /// Serves until `stopFd` is readable, then finishes what is in progress.
    void run(Listener listener, int stopFd);

  private:
    using Connections = std::list<Connection*>;

    /// Keeps a connection in `m_connections`.
    class Enrolment {
      public:
        Enrolment(HttpServer& server, Connection& connection);
        Enrolment(const Enrolment&) = delete;
        Enrolment& operator=(const Enrolment&) = delete;
        ~Enrolment();

      private:
        HttpServer& m_server;
        Connections::iterator m_entry;
    };

    void acceptOne(int listeningFd);
    void converse(QelFileDescriptor socket);
    void serveRequests(Connection& connection);
    void drain();
    Connection* longestWaiting(Connection::Waiting kind) const;
    bool makeRoom(std::unique_lock<std::mutex>& lock);

    /// The status of HTTP that a request is refused with before its body is read; 0: it is not.
    int refusalOf(const httplib::Request& request) const;
    void admit(httplib::Request& request, const Connection& connection, bool& close) const;
    void answer(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader& readBody);
    void send(httplib::Response& response, Answer answer);

    Service& m_service;
    Log& m_log;
    std::vector<std::string> m_paths;
    SSL_CTX* m_tls;
    const HttpLimits m_limits;

    std::mutex m_mutex;
    std::condition_variable m_ended;
    /// Threads of connections, those that have not entered `m_connections` yet included.
    std::size_t m_threads = 0;
    Connections m_connections;
    std::atomic<bool> m_stopping = false;
    /// Whether connections are being refused, so that the log says it once.
    bool m_saturated = false;
};

}  // namespace dsessd
