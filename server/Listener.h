/// The socket that connections come in on.
#pragma once

#include <string>
#include <string_view>

#include "runtime/QelFileDescriptor.h"

namespace dsessd {

/// Listens on `HOST:PORT`: an IPv4 address, an IPv6 address in brackets, or a name, of whose addresses the first that
/// can be listened on is taken. Port 0 lets the system pick one. Throws std::runtime_error with one line that says why
/// not.
class Listener {
  public:
    explicit Listener(std::string_view hostAndPort);
    /// Hands the socket over to the caller, who closes it.
    [[nodiscard]] int release() { return m_socket.release(); }
    bool isV6() const { return m_isV6; }
    /// `HOST:PORT` as given, with the port in use.
    const std::string& address() const { return m_address; }

  private:
    QelFileDescriptor m_socket;
    std::string m_address;
    bool m_isV6 = false;
};

}  // namespace dsessd
