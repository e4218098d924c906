#include "net/control_stream.h"

#include "net/data_socket.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

socket_address described(const tcp::endpoint& endpoint) {
  return {address_plain(endpoint.address()), endpoint.port()};
}

}  // namespace

control_stream::control_stream(event_loop& loop, int socket) : socket_(loop.context()), raw_(socket) {}

control_stream::~control_stream() {
  if (raw_ >= 0) ::close(raw_);
}

bool control_stream::open() {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (getsockname(raw_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return false;
  if (address.ss_family != AF_INET && address.ss_family != AF_INET6) return false;
  error_code error;
  socket_.assign(address.ss_family == AF_INET ? tcp::v4() : tcp::v6(), raw_, error);
  if (error) return false;
  raw_ = -1;
  local_ = described(socket_.local_endpoint(error));
  if (error) return false;
  peer_ = described(socket_.remote_endpoint(error));
  if (error) return false;
  // Best effort: a session works without these. Urgent data (ABOR after IAC IP, IAC DM) stays in line.
  socket_.set_option(tcp::no_delay(true), error);
  socket_.set_option(asio::socket_base::keep_alive(true), error);
  socket_.set_option(asio::socket_base::out_of_band_inline(true), error);
  return true;
}

asio::awaitable<control_stream::moved> control_stream::read_some(asio::mutable_buffer into) {
  const auto [error, bytes] = co_await socket_.async_read_some(asio::buffer(into), asio::as_tuple(asio::use_awaitable));
  co_return moved{error, bytes};
}

asio::awaitable<control_stream::moved> control_stream::write(asio::const_buffer bytes) {
  const auto [error, count] =
      co_await asio::async_write(socket_, asio::buffer(bytes), asio::as_tuple(asio::use_awaitable));
  co_return moved{error, count};
}

asio::awaitable<void> control_stream::reset() {
  (void)co_await socket_.async_wait(tcp::socket::wait_error, asio::as_tuple(asio::use_awaitable));
}

void control_stream::shut_down() {
  if (!socket_.is_open()) return;
  error_code ignored;
  socket_.shutdown(tcp::socket::shutdown_send, ignored);
  socket_drain(socket_);
  close();
}

void control_stream::close() {
  error_code ignored;
  socket_.close(ignored);
}

bool control_stream::hung_up() const {
  pollfd entry{socket_.native_handle(), POLLRDHUP, 0};
  return poll(&entry, 1, 0) > 0;
}

std::chrono::milliseconds control_stream::retransmission_timeout() const {
  tcp_info info{};
  socklen_t length = sizeof(info);
  if (getsockopt(socket_.native_handle(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return {};
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::microseconds(info.tcpi_rto));
}

}  // namespace tarvex::server
