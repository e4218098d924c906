#include "config/client_network.h"

#include "base/number.h"

#include <algorithm>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

constexpr unsigned short IPV4_BITS = 32;
constexpr unsigned short IPV6_BITS = 128;
constexpr unsigned short MAPPED_BITS = IPV6_BITS - IPV4_BITS;  ///< in front of an IPv4 address

asio::ip::address plain(const asio::ip::address& address) {
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address;
  return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
}

template <typename Network, typename Address>
std::optional<client_network> network_of(const Address& address, unsigned short bits) {
  const Network network(address, bits);
  if (network != network.canonical()) return std::nullopt;
  return network;
}

}  // namespace

std::optional<client_network> client_network_parse(const std::string& text) {
  const std::size_t slash = text.find('/');
  boost::system::error_code error;
  const auto address = asio::ip::make_address(text.substr(0, slash), error);
  if (error || text.find('%') != std::string::npos) return std::nullopt;
  unsigned short bits = address.is_v4() ? IPV4_BITS : IPV6_BITS;
  if (slash != std::string::npos) {
    const auto given = parse_number<unsigned short>(std::string_view(text).substr(slash + 1));
    if (!given || *given > bits) return std::nullopt;
    bits = *given;
  }
  if (address.is_v4()) return network_of<asio::ip::network_v4>(address.to_v4(), bits);
  if (address.to_v6().is_v4_mapped() && bits >= MAPPED_BITS) {
    return network_of<asio::ip::network_v4>(plain(address).to_v4(), static_cast<unsigned short>(bits - MAPPED_BITS));
  }
  return network_of<asio::ip::network_v6>(address.to_v6(), bits);
}

std::string client_network_text(const client_network& network) {
  return std::visit([](const auto& of) { return of.to_string(); }, network);
}

bool client_network_holds(const client_network& network, const asio::ip::address& address) {
  const asio::ip::address client = plain(address);
  if (const auto* const v4 = std::get_if<asio::ip::network_v4>(&network)) {
    return client.is_v4() && asio::ip::network_v4(client.to_v4(), v4->prefix_length()).canonical() == *v4;
  }
  const auto& v6 = std::get<asio::ip::network_v6>(network);
  return client.is_v6() && asio::ip::network_v6(client.to_v6(), v6.prefix_length()).canonical() == v6;
}

}  // namespace tarvex::server
