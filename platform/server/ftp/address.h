#pragma once

#include <boost/asio/ip/address.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// Where a client wants a data connection to go.
struct host_port {
  boost::asio::ip::address host;
  std::uint16_t port = 0;
};

/// The argument of PORT, "h1,h2,h3,h4,p1,p2" (RFC 959 section 4.1.2): six decimal numbers up to 255.
[[nodiscard]] std::optional<host_port> port_address_parse(std::string_view text);

/// The same the other way round, as the 227 reply shows it.
[[nodiscard]] std::string port_address_format(const boost::asio::ip::address_v4& host, std::uint16_t port);

/// The argument of EPRT (RFC 2428 section 2).
struct extended_address {
  std::string protocol;             ///< "1" (IPv4), "2" (IPv6), or another number
  std::optional<host_port> target;  ///< nothing: the address or the port is none
};

/// Reads "|protocol|address|port|", with any character in the place of the bars. \return nothing when it is not of that
/// form at all.
///
/// Protocol and target are told apart because their refusals are: a protocol that is not offered answers 522 whatever
/// follows it, a bad address or port 501. An address of the family that the protocol does not name is no target.
[[nodiscard]] std::optional<extended_address> extended_address_parse(std::string_view text);

/// Whether two addresses name the same host. The scope of a link-local address is left out: clients do not know by
/// which name the server calls its own interface.
[[nodiscard]] bool same_host(const boost::asio::ip::address& a, const boost::asio::ip::address& b);

}  // namespace tarvex::server
