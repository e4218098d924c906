#pragma once

#include <boost/asio/ip/address.hpp>

#include <cstdint>
#include <string>

namespace tarvex::server {

/// IPv4 in IPv6 clothes (::ffff:192.0.2.1) becomes IPv4, as which the client knows itself.
boost::asio::ip::address address_plain(const boost::asio::ip::address& address);

/// One end of a TCP connection; the address is plain.
struct socket_address {
  boost::asio::ip::address address;
  std::uint16_t port = 0;

  /// The address as numbers.
  std::string host() const { return address.to_string(); }
  bool ipv6() const { return address.is_v6(); }
  bool loopback() const { return address.is_loopback(); }
};

}  // namespace tarvex::server
