#pragma once

#include <boost/asio/ip/address.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// A TCP address to listen on. Port 0 takes a free one.
struct listen_address {
  boost::asio::ip::address host;
  std::uint16_t port = 0;

  bool operator==(const listen_address&) const = default;
};

/// "IPv4:port" or "[IPv6]:port", numeric, without a scope, port 0 to 65535.
[[nodiscard]] std::optional<listen_address> listen_address_parse(std::string_view text);

/// The same the other way round.
[[nodiscard]] std::string listen_address_text(const listen_address& address);

}  // namespace tarvex::server
