#include "net/wire.h"

#include <sys/socket.h>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <cerrno>
#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr int NO_SOCKET = -1;

asio::awaitable<error_code> socket_ready(wire::pointer self, tcp::socket::wait_type what) {
  const auto [error] = co_await self->socket.async_wait(what, asio::as_tuple(asio::use_awaitable));
  co_return error;
}

/// Sends at least some of what waits under TLS.
asio::awaitable<error_code> send_some(wire::pointer self) {
  while (self->unsent()) {
    const auto sent = self->tls->send_now();
    if (sent.error != asio::error::would_block) co_return sent.error;
    if (sent.bytes > 0) co_return error_code();
    const error_code error = co_await socket_ready(self, tcp::socket::wait_write);
    if (error) co_return error;
  }
  co_return error_code();
}

asio::awaitable<error_code> send_all(wire::pointer self) {
  error_code error;
  while (!error && self->unsent()) error = co_await send_some(self);
  co_return error;
}

}  // namespace

wire::moved wire::read_now(asio::mutable_buffer into) {
  if (tls) {
    const moved got = tls->read(into);
    if (got.error) (void)tls->send_now();  // the answer to the peer's end
    return got;
  }
  moved got;
  if (!socket.non_blocking()) socket.non_blocking(true, got.error);
  if (!got.error) got.bytes = socket.read_some(asio::buffer(into), got.error);
  return got;
}

asio::awaitable<error_code> wire::readable(pointer self) {
  if (self->tls && self->tls->readable()) {
    co_await asio::post(self->socket.get_executor(), asio::use_awaitable);  // others have their turn first
    co_return error_code();
  }
  co_return co_await socket_ready(self, tcp::socket::wait_read);
}

asio::awaitable<wire::moved> wire::write_some(pointer self, std::span<const asio::const_buffer> buffers) {
  if (!self->tls) {
    const auto [error, bytes] = co_await self->socket.async_write_some(buffers, asio::as_tuple(asio::use_awaitable));
    co_return moved{error, bytes};
  }
  moved taken;
  if (!self->unsent()) taken = self->tls->write(buffers);
  if (!taken.error) taken.error = co_await send_some(self);
  co_return taken;
}

wire::moved wire::write_now(asio::const_buffer bytes) {
  if (tls) {
    if (tls->unsent()) return {asio::error::would_block, 0};
    const moved taken = tls->write({&bytes, 1});
    if (!taken.error) (void)tls->send_now();  // an error of the socket comes again
    return taken;
  }
  const ssize_t count = ::send(socket.native_handle(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count >= 0) return {{}, static_cast<std::size_t>(count)};
  if (errno == EAGAIN || errno == EINTR) return {asio::error::would_block, 0};
  return {error_code(errno, asio::error::get_system_category()), 0};
}

asio::awaitable<error_code> wire::end_sending(pointer self) {
  const error_code error = co_await send_all(self);
  if (!error && self->socket.is_open()) self->end_now();
  co_return error;
}

void wire::end_now() {
  if (tls) {
    tls->close_notify();
    (void)tls->send_now();
  }
  error_code ignored;
  socket.shutdown(tcp::socket::shutdown_send, ignored);
}

asio::awaitable<error_code> wire::secure(pointer self, std::unique_ptr<tls_engine> with) {
  error_code error;
  self->socket.non_blocking(true, error);
  if (error) co_return error;
  with->attach(self->socket.native_handle());
  self->tls = std::move(with);
  while (true) {
    const error_code how = self->tls->handshake();
    const bool goes_on = how == asio::error::would_block;
    if (how && !goes_on) {
      (void)self->tls->send_now();  // the alert
      co_return how;
    }
    error = co_await send_all(self);
    if (error || !goes_on) co_return error;
    error = co_await socket_ready(self, tcp::socket::wait_read);
    if (error) co_return error;
  }
}

void wire::close() {
  if (!socket.is_open()) return;
  socket_drain(socket);
  close_at_once();
}

void wire::close_at_once() {
  if (tls) tls->attach(NO_SOCKET);  // its number may soon be another's
  error_code ignored;
  socket.close(ignored);
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
