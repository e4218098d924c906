#pragma once

#include "net/control_channel.h"

#include <boost/asio/ip/tcp.hpp>

namespace tarvex::server {

/// A connected data connection. A record of its own, so that headers can name it without Asio.
struct data_socket {
  boost::asio::ip::tcp::socket socket;
};

/// IPv4 in IPv6 clothes becomes IPv4.
boost::asio::ip::address address_plain(const boost::asio::ip::address& address);
socket_address address_describe(const boost::asio::ip::tcp::endpoint& endpoint);

/// Reads and drops what has arrived, so that the close that follows sends FIN and no reset.
void socket_drain(boost::asio::ip::tcp::socket& socket);

}  // namespace tarvex::server
