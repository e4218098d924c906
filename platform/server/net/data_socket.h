#pragma once

#include <boost/asio/ip/tcp.hpp>

namespace tarvex::server {

/// A connected data connection. A record of its own, so that headers can name it without Asio.
struct data_socket {
  boost::asio::ip::tcp::socket socket;
};

/// Reads and drops what has arrived, so that the close that follows sends FIN and no reset.
void socket_drain(boost::asio::ip::tcp::socket& socket);

}  // namespace tarvex::server
