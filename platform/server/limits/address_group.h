#pragma once

#include <boost/asio/ip/address.hpp>

#include <cstdint>
#include <string>

namespace tarvex::server {

/// What counts as one address: an IPv4 address, or the /64 of an IPv6 one, since whoever has one address of such a
/// network has all of them. IPv4 in IPv6 clothes (::ffff:192.0.2.1) counts as IPv4.
[[nodiscard]] std::uint64_t address_group(const boost::asio::ip::address& address);

/// The same for people: "192.0.2.1" or "2001:db8:1:2::/64".
[[nodiscard]] std::string address_group_text(const boost::asio::ip::address& address);

}  // namespace tarvex::server
