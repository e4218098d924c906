#include "net/data_socket.h"

#include "net/wire.h"

#include <boost/asio/error.hpp>

#include <utility>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

asio::awaitable<data_socket::moved> wire_read(wire::pointer from, asio::mutable_buffer into) {
  while (true) {
    const auto [error, bytes] = from->read_now(into);
    if (error != asio::error::would_block) co_return data_socket::moved{error, bytes};
    const error_code gone = co_await wire::readable(from);
    if (gone) co_return data_socket::moved{gone, 0};
  }
}

asio::awaitable<data_socket::moved> wire_write(wire::pointer to, std::span<const asio::const_buffer> buffers) {
  const auto [error, bytes] = co_await wire::write_some(to, buffers);
  co_return data_socket::moved{error, bytes};
}

}  // namespace

data_socket::data_socket(tcp::socket plain) : wire_(std::make_shared<wire>(std::move(plain))) {}
data_socket::data_socket(data_socket&& other) noexcept = default;
data_socket& data_socket::operator=(data_socket&& other) noexcept = default;

data_socket::~data_socket() {
  if (wire_) close();
}

asio::awaitable<error_code> data_socket::secure(std::unique_ptr<tls_engine> tls) {
  return wire::secure(wire_, std::move(tls));
}

bool data_socket::secured() const {
  return wire_->tls != nullptr;
}

bool data_socket::resumed() const {
  return wire_->tls && wire_->tls->resumed();
}

certificate_names data_socket::peer_certificate() const {
  return wire_->tls ? wire_->tls->peer_certificate() : certificate_names();
}

asio::awaitable<data_socket::moved> data_socket::read_some(asio::mutable_buffer into) {
  return wire_read(wire_, into);
}

data_socket::moved data_socket::read_now(asio::mutable_buffer into) {
  const auto [error, bytes] = wire_->read_now(into);
  return {error, bytes};
}

asio::awaitable<error_code> data_socket::readable() {
  return wire::readable(wire_);
}

asio::awaitable<data_socket::moved> data_socket::write_some(std::span<const asio::const_buffer> buffers) {
  return wire_write(wire_, buffers);
}

data_socket::moved data_socket::write_now(asio::const_buffer bytes) {
  const auto [error, count] = wire_->write_now(bytes);
  return {error, count};
}

bool data_socket::unsent() const {
  return wire_->unsent();
}

asio::awaitable<error_code> data_socket::end_sending() {
  return wire::end_sending(wire_);
}

tcp::socket& data_socket::transport() {
  return wire_->socket;
}

void data_socket::close() {
  wire_->close();
}

}  // namespace tarvex::server
