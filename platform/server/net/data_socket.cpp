#include "net/data_socket.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

struct data_socket::state {
  explicit state(tcp::socket plain) : socket(std::move(plain)) {
    error_code ignored;  // the first read tells
    socket.non_blocking(true, ignored);
  }

  tcp::socket socket;

  moved read_now(asio::mutable_buffer into) {
    moved got;
    got.bytes = socket.read_some(asio::buffer(into), got.error);
    return got;
  }

  static asio::awaitable<error_code> readable(std::shared_ptr<state> self);
  static asio::awaitable<moved> read_some(std::shared_ptr<state> self, asio::mutable_buffer into);
  static asio::awaitable<moved> write_some(std::shared_ptr<state> self, std::span<const asio::const_buffer> buffers);
  static asio::awaitable<error_code> end_sending(std::shared_ptr<state> self);
};

asio::awaitable<error_code> data_socket::state::readable(std::shared_ptr<state> self) {
  const auto [error] = co_await self->socket.async_wait(tcp::socket::wait_read, asio::as_tuple(asio::use_awaitable));
  co_return error;
}

asio::awaitable<data_socket::moved> data_socket::state::read_some(std::shared_ptr<state> self,
                                                                  asio::mutable_buffer into) {
  while (true) {
    const moved got = self->read_now(into);
    if (got.error != asio::error::would_block) co_return got;
    const error_code error = co_await readable(self);
    if (error) co_return moved{error, 0};
  }
}

asio::awaitable<data_socket::moved> data_socket::state::write_some(std::shared_ptr<state> self,
                                                                   std::span<const asio::const_buffer> buffers) {
  const auto [error, bytes] = co_await self->socket.async_write_some(buffers, asio::as_tuple(asio::use_awaitable));
  co_return moved{error, bytes};
}

/// A peer that has all and goes before it hears of the end is no failure.
asio::awaitable<error_code> data_socket::state::end_sending(std::shared_ptr<state> self) {
  error_code ignored;
  self->socket.shutdown(tcp::socket::shutdown_send, ignored);
  co_return error_code();
}

data_socket::data_socket(tcp::socket plain) : state_(std::make_shared<state>(std::move(plain))) {}
data_socket::data_socket(data_socket&& other) noexcept = default;
data_socket& data_socket::operator=(data_socket&& other) noexcept = default;
data_socket::~data_socket() {
  if (state_) close();
}

asio::awaitable<data_socket::moved> data_socket::read_some(asio::mutable_buffer into) {
  return state::read_some(state_, into);
}

data_socket::moved data_socket::read_now(asio::mutable_buffer into) {
  return state_->read_now(into);
}

asio::awaitable<error_code> data_socket::readable() {
  return state::readable(state_);
}

asio::awaitable<data_socket::moved> data_socket::write_some(std::span<const asio::const_buffer> buffers) {
  return state::write_some(state_, buffers);
}

bool data_socket::unsent() const {
  return false;
}

asio::awaitable<error_code> data_socket::end_sending() {
  return state::end_sending(state_);
}

tcp::socket& data_socket::transport() {
  return state_->socket;
}

void data_socket::close() {
  if (!state_->socket.is_open()) return;
  error_code ignored;
  socket_drain(state_->socket);
  state_->socket.close(ignored);
}

void socket_drain(tcp::socket& socket) {
  constexpr int ROUNDS_MAX = 64;
  error_code error;
  socket.non_blocking(true, error);
  std::array<char, 4096> dropped;
  for (int round = 0; round < ROUNDS_MAX && !error; ++round) {
    if (socket.read_some(asio::buffer(dropped), error) == 0) return;
  }
}

}  // namespace tarvex::server
