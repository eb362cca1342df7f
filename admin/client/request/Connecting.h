/// The way to a connection: the addresses of a host, and the first of them that answers.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <span>
#include <string>
#include <vector>

#include "admin/client/request/Task.h"

namespace olmdsess {

namespace net = boost::asio;
using net::ip::tcp;
using ErrorCode = boost::system::error_code;

/// Looks a host up, which is a name or an address, and gives its addresses in the order in which to try them. The
/// system is asked on a thread of its own, for it may hang: a wait that is cancelled leaves the thread behind, and so
/// does the end of the process. Throws boost::system::system_error when there are none, and std::bad_alloc.
Task<std::vector<tcp::endpoint>> lookUp(net::io_context& loop, const std::string& host, const std::string& port);

/// Connects to the first of at least one address that answers (RFC 8305, section 5): the next one is tried too when one
/// has failed, or has taken 250 ms. Throws boost::system::system_error with what the last one failed of, and
/// std::bad_alloc.
Task<tcp::socket> connectToFirst(net::io_context& loop, std::span<const tcp::endpoint> addresses);

}  // namespace olmdsess
