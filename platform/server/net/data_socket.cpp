#include "net/data_socket.h"

#include <array>

namespace tarvex::server {

namespace asio = boost::asio;

asio::ip::address address_plain(const asio::ip::address& address) {
  if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address;
  return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
}

socket_address address_describe(const asio::ip::tcp::endpoint& endpoint) {
  const asio::ip::address address = address_plain(endpoint.address());
  return {address.to_string(), endpoint.port(), address.is_v6(), address.is_loopback()};
}

void socket_drain(asio::ip::tcp::socket& socket) {
  constexpr int ROUNDS_MAX = 64;
  boost::system::error_code error;
  socket.non_blocking(true, error);
  std::array<char, 4096> dropped;
  for (int round = 0; round < ROUNDS_MAX && !error; ++round) {
    if (socket.read_some(asio::buffer(dropped), error) == 0) return;
  }
}

}  // namespace tarvex::server
