#include "net/data_socket.h"

#include <array>

namespace tarvex::server {

void socket_drain(boost::asio::ip::tcp::socket& socket) {
  constexpr int ROUNDS_MAX = 64;
  boost::system::error_code error;
  socket.non_blocking(true, error);
  std::array<char, 4096> dropped;
  for (int round = 0; round < ROUNDS_MAX && !error; ++round) {
    if (socket.read_some(boost::asio::buffer(dropped), error) == 0) return;
  }
}

}  // namespace tarvex::server
