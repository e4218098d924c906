#include "net/data_discard.h"

#include "net/data_socket.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr std::chrono::milliseconds LIMIT{1000};
constexpr std::size_t BYTES_PER_TURN = 4 << 20;  // before the I/O thread looks at anything else

/// Drops what has arrived. \return an error when no more will.
error_code drop(tcp::socket& socket) {
  std::array<unsigned char, 65536> dropped;
  error_code error;
  for (std::size_t total = 0; total < BYTES_PER_TURN && !error;)
    total += socket.read_some(asio::buffer(dropped), error);
  return error == asio::error::would_block ? error_code() : error;
}

asio::awaitable<void> discard(event_loop& loop, std::unique_ptr<data_socket> connection) {
  loop_timer limit(loop);
  limit.start(LIMIT, [open = connection.get()] { open->close(); });
  while (true) {
    const auto [error] =
        co_await connection->transport().async_wait(tcp::socket::wait_read, asio::as_tuple(asio::use_awaitable));
    if (error || drop(connection->transport())) co_return;
  }
}

}  // namespace

void data_discard(event_loop& loop, std::unique_ptr<data_socket> connection) {
  loop.spawn(discard(loop, std::move(connection)));
}

}  // namespace tarvex::server
