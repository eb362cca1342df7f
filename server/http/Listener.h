/// The socket that connections come in on.
#pragma once

#include <string>
#include <string_view>

#include "runtime/QelFileDescriptor.h"

namespace dsessd {

/// Stands for `HOST:PORT`: an IPv4 address, an IPv6 address in brackets, or a name, of whose addresses the first that
/// is free is taken. Port 0 lets the system pick one. Connections are refused until open(). Both throw
/// std::runtime_error with one line that says why not.
class Listener {
  public:
    explicit Listener(std::string_view hostAndPort);
    void open();
    /// The next connection that has come in, as a socket that does not block. None: errno says why, EAGAIN if no other
    /// has come.
    QelFileDescriptor accept();
    /// To wait for; stays the listener's.
    int get() const { return m_socket.get(); }
    void close() { m_socket.reset(); }
    /// `HOST:PORT` as given, with the port in use.
    const std::string& address() const { return m_address; }

  private:
    QelFileDescriptor m_socket;
    std::string m_address;
};

}  // namespace dsessd
