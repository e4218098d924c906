#include "limits/address_group.h"

#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/ip/address_v6.hpp>

#include <algorithm>

namespace tarvex::server {

namespace {

namespace ip = boost::asio::ip;

constexpr std::size_t NETWORK_BYTES = 8;
/// Stands before an IPv4 address, as the first half of an IPv6 address that nobody is given.
constexpr std::uint64_t IPV4_PREFIX = std::uint64_t{0xffff} << 32;

ip::address plain(const ip::address& address) {
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address;
  return ip::make_address_v4(ip::v4_mapped, address.to_v6());
}

}  // namespace

std::uint64_t address_group(const ip::address& address) {
  const ip::address counted = plain(address);
  if (counted.is_v4()) return IPV4_PREFIX | counted.to_v4().to_uint();
  std::uint64_t network = 0;
  const ip::address_v6::bytes_type bytes = counted.to_v6().to_bytes();
  for (std::size_t i = 0; i < NETWORK_BYTES; ++i) network = network << 8 | bytes[i];
  return network;
}

std::string address_group_text(const ip::address& address) {
  const ip::address counted = plain(address);
  if (counted.is_v4()) return counted.to_string();
  ip::address_v6::bytes_type bytes = counted.to_v6().to_bytes();
  std::fill(bytes.begin() + NETWORK_BYTES, bytes.end(), static_cast<unsigned char>(0));
  return ip::address_v6(bytes).to_string() + "/64";
}

}  // namespace tarvex::server
