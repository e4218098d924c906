#include "net/control_stream.h"

#include "net/wire.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

socket_address described(const tcp::endpoint& endpoint) {
  return {address_plain(endpoint.address()), endpoint.port()};
}

}  // namespace

control_stream::control_stream(event_loop& loop, int socket)
    : loop_(loop),
      wire_(std::make_shared<wire>(tcp::socket(loop.context()))),
      raw_(socket),
      reading_(loop),
      writing_(loop) {}

control_stream::~control_stream() {
  if (raw_ >= 0) ::close(raw_);
}

bool control_stream::open() {
  tcp::socket& socket = wire_->socket;
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (getsockname(raw_, reinterpret_cast<sockaddr*>(&address), &length) != 0) return false;
  if (address.ss_family != AF_INET && address.ss_family != AF_INET6) return false;
  error_code error;
  socket.assign(address.ss_family == AF_INET ? tcp::v4() : tcp::v6(), raw_, error);
  if (error) return false;
  raw_ = -1;
  local_ = described(socket.local_endpoint(error));
  if (error) return false;
  peer_ = described(socket.remote_endpoint(error));
  if (error) return false;
  // Best effort: a session works without these. Urgent data (ABOR after IAC IP, IAC DM) stays in line.
  socket.set_option(tcp::no_delay(true), error);
  socket.set_option(asio::socket_base::keep_alive(true), error);
  socket.set_option(asio::socket_base::out_of_band_inline(true), error);
  return true;
}

asio::awaitable<control_stream::moved> control_stream::read_some(asio::mutable_buffer into) {
  while (true) {
    const error_code gone = co_await wire::readable(wire_);
    if (gone) co_return moved{gone, 0};
    while (held_) co_await reading_.wait();
    auto [error, bytes] = wire_->read_now(into);
    // A command is whole or it is none: nothing is lost with an end that anybody may have made.
    if (error == asio::ssl::error::stream_truncated) error = asio::error::eof;
    if (error != asio::error::would_block) co_return moved{error, bytes};
  }
}

asio::awaitable<control_stream::moved> control_stream::write(asio::const_buffer bytes) {
  while (securing_) co_await writing_.wait();
  moved all;
  while (!all.error && (bytes.size() > 0 || wire_->unsent())) {
    const auto [error, count] = co_await wire::write_some(wire_, {&bytes, 1});
    all.error = error;
    all.bytes += count;
    bytes += count;
  }
  co_return all;
}

void control_stream::hold() {
  held_ = true;
  socket_drain(wire_->socket);
}

asio::awaitable<error_code> control_stream::secure(std::unique_ptr<tls_engine> tls, std::chrono::milliseconds limit) {
  loop_timer timer(loop_);
  bool late = false;
  timer.start(limit, [this, &late] {
    late = true;
    close();
  });
  securing_ = true;
  error_code error = co_await wire::secure(wire_, std::move(tls));
  securing_ = held_ = false;
  secured_ = !error;
  reading_.notify();
  writing_.notify();
  co_return late ? asio::error::timed_out : error;
}

bool control_stream::secured() const {
  return secured_;
}

void control_stream::renew_ticket() {
  if (secured()) wire_->tls->renew_ticket();
}

certificate_names control_stream::peer_certificate() const {
  return secured() ? wire_->tls->peer_certificate() : certificate_names();
}

std::string control_stream::protection() const {
  return secured() ? wire_->tls->description() : std::string();
}

asio::awaitable<void> control_stream::reset() {
  (void)co_await wire_->socket.async_wait(tcp::socket::wait_error, asio::as_tuple(asio::use_awaitable));
}

void control_stream::shut_down() {
  if (!wire_->socket.is_open()) return;
  wire_->end_now();
  wire_->close();
}

void control_stream::close() {
  wire_->close_at_once();
  if (!securing_) held_ = false;  // else that ends by itself
  reading_.notify();
}

bool control_stream::hung_up() const {
  pollfd entry{wire_->socket.native_handle(), POLLRDHUP, 0};
  return poll(&entry, 1, 0) > 0;
}

std::chrono::milliseconds control_stream::retransmission_timeout() const {
  tcp_info info{};
  socklen_t length = sizeof(info);
  if (getsockopt(wire_->socket.native_handle(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) return {};
  return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::microseconds(info.tcpi_rto));
}

}  // namespace tarvex::server
