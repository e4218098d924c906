#pragma once

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/ip/network_v6.hpp>

#include <optional>
#include <string>
#include <variant>

namespace tarvex::server {

/// A network that clients come from.
using client_network = std::variant<boost::asio::ip::network_v4, boost::asio::ip::network_v6>;

/// "ADDRESS/BITS" (RFC 4632 section 3.1, RFC 4291 section 2.3), or an address alone. IPv4 addresses that are written as
/// IPv6 ones (RFC 4291 section 2.5.5.2) become networks of IPv4.
/// \return nothing for other texts, for an address with a scope, and for one that has bits set behind its prefix: what
/// was meant is not known then.
[[nodiscard]] std::optional<client_network> client_network_parse(const std::string& text);

/// The same the other way round, always with its bits.
[[nodiscard]] std::string client_network_text(const client_network& network);

/// Whether an address is of the network. An IPv4 address written as an IPv6 one counts as IPv4.
[[nodiscard]] bool client_network_holds(const client_network& network, const boost::asio::ip::address& address);

}  // namespace tarvex::server
