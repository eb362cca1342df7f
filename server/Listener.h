/// The socket that connections come in on.
#pragma once

#include <string>
#include <string_view>

#include "server/Descriptor.h"

namespace dsessd {

/// Listens on `HOST:PORT`: an IPv4 address, an IPv6 address in brackets, or a name, of whose addresses the first that
/// can be listened on is taken. Port 0 lets the system pick one. Throws std::runtime_error with one line that says why
/// not.
class Listener {
  public:
    explicit Listener(std::string_view hostAndPort);
    int fd() const { return socket_.get(); }
    /// Takes no more connections.
    void close() { socket_ = Descriptor(); }
    /// `HOST:PORT` as given, with the port in use.
    const std::string& address() const { return address_; }

  private:
    Descriptor socket_;
    std::string address_;
};

}  // namespace dsessd
