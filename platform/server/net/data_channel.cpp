#include "net/data_channel.h"

#include "base/log.h"
#include "net/data_socket.h"
#include "net/socket_address.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <functional>
#include <random>
#include <tuple>
#include <vector>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr int BACKLOG = 64;

struct active_target {
  tcp::endpoint from, to;
};

/// Before the connection is there, or its window is scaled for others.
template <typename Socket>
void set_buffers_of(Socket& socket, int bytes) {
  if (bytes == 0) return;
  error_code ignored;  // the kernel takes what it allows
  socket.set_option(asio::socket_base::receive_buffer_size(bytes), ignored);
  socket.set_option(asio::socket_base::send_buffer_size(bytes), ignored);
}

bool acceptor_listen(tcp::acceptor& acceptor, const tcp::endpoint& endpoint, int buffer_bytes) {
  error_code error, ignored;
  acceptor.open(endpoint.protocol(), error);
  if (!error) set_buffers_of(acceptor, buffer_bytes);
  if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(BACKLOG, error);
  if (error) acceptor.close(ignored);
  return !error;
}

data_connection failure(const std::string& what, error_code error) {
  return {nullptr, "The data connection could not be " + what + ": " + error.message() + ".", 425};
}

data_connection success(tcp::socket socket) {
  error_code ignored;
  socket.set_option(asio::socket_base::keep_alive(true), ignored);
  socket.set_option(tcp::no_delay(true), ignored);
  return {std::make_unique<data_socket>(std::move(socket)), {}, 0};
}

}  // namespace

/// One use of the channel. Closing its sockets ends a wait for the connection, which then says what `over` tells.
struct data_channel::setup {
  explicit setup(asio::io_context& context) : acceptor(context) {}

  tcp::acceptor acceptor;
  std::vector<std::weak_ptr<tcp::socket>> connecting;
  asio::ip::address peer;
  std::optional<active_target> active;
  int buffer_bytes = 0;
  std::vector<data_socket*> securing;  // their handshakes run
  std::string over;                    // why there is no connection to be had any more; empty: there is

  void end(const std::string& why) {
    if (over.empty()) over = why;
    error_code ignored;
    acceptor.close(ignored);
    for (const auto& each : connecting)
      if (const auto socket = each.lock()) socket->close(ignored);
    for (data_socket* const each : securing) each->close();
  }

  static asio::awaitable<data_connection> open(event_loop& loop, std::shared_ptr<setup> self,
                                               data_protection protection,
                                               std::optional<std::chrono::milliseconds> limit, bool used_up);
  static asio::awaitable<data_connection> accept(std::shared_ptr<setup> self);
  static asio::awaitable<data_connection> connect(std::shared_ptr<setup> self);
  static asio::awaitable<data_connection> protect(std::shared_ptr<setup> self, data_connection made,
                                                  data_protection protection);
};

asio::awaitable<data_connection> data_channel::setup::open(event_loop& loop, std::shared_ptr<setup> self,
                                                           data_protection protection,
                                                           std::optional<std::chrono::milliseconds> limit,
                                                           bool used_up) {
  if (!self) co_return data_connection{nullptr, "No data connection was prepared.", 425};
  loop_timer timer(loop);
  std::function<void()> give_up = [waiting = self.get()] {
    waiting->end(!waiting->securing.empty() ? "The client did not finish the TLS handshake of the data connection."
                                            : "No data connection came.");
  };
  if (limit) timer.start(*limit, std::move(give_up));
  data_connection made;
  if (!self->over.empty())
    made.error = self->over;
  else if (self->active)
    made = co_await connect(self);
  else
    made = co_await accept(self);
  if (made.socket && protection.tls) made = co_await protect(self, std::move(made), std::move(protection));
  if (!self->over.empty()) made = {nullptr, self->over, 425};
  if (used_up) self->end("The data connection was used already.");
  co_return made;
}

asio::awaitable<data_connection> data_channel::setup::accept(std::shared_ptr<setup> self) {
  while (true) {
    auto [error, socket] = co_await self->acceptor.async_accept(asio::as_tuple(asio::use_awaitable));
    if (error) co_return failure("accepted", error);
    const tcp::endpoint from = socket.remote_endpoint(error);
    if (!error && address_plain(from.address()) == self->peer) {
      set_buffers_of(socket, self->buffer_bytes);
      co_return success(std::move(socket));
    }
    log_warning("data connection from {} refused: the client is {}",
                error ? "a vanished peer" : from.address().to_string(), self->peer.to_string());
  }
}

asio::awaitable<data_connection> data_channel::setup::connect(std::shared_ptr<setup> self) {
  const auto socket = std::make_shared<tcp::socket>(self->acceptor.get_executor());
  self->connecting.push_back(socket);
  error_code error;
  socket->open(self->active->to.protocol(), error);
  if (!error) set_buffers_of(*socket, self->buffer_bytes);
  if (!error) socket->bind(self->active->from, error);
  if (error) co_return failure("made", error);
  std::tie(error) = co_await socket->async_connect(self->active->to, asio::as_tuple(asio::use_awaitable));
  if (error) co_return failure("made", error);
  co_return success(std::move(*socket));
}

asio::awaitable<data_connection> data_channel::setup::protect(std::shared_ptr<setup> self, data_connection made,
                                                              data_protection protection) {
  self->securing.push_back(made.socket.get());
  std::string refusal = co_await data_protect(*made.socket, std::move(protection));
  std::erase(self->securing, made.socket.get());
  if (!refusal.empty()) made = {nullptr, std::move(refusal), 522};
  co_return made;
}

data_channel::data_channel(event_loop& loop) : loop_(loop) {}

data_channel::~data_channel() {
  close();
}

std::uint16_t data_channel::listen(const asio::ip::address& host, const asio::ip::address& peer,
                                   const port_range& ports) {
  close();
  const auto made = std::make_shared<setup>(loop_.context());
  made->peer = peer;
  made->buffer_bytes = buffer_bytes_;
  const unsigned first = ports ? ports->first : 0;
  const unsigned count = ports ? ports->second - first + 1U : 1;
  const unsigned start = std::random_device()() % count;
  for (unsigned tried = 0; tried < count; ++tried) {
    const auto port = static_cast<std::uint16_t>(first + (start + tried) % count);
    if (!acceptor_listen(made->acceptor, {host, port}, buffer_bytes_)) continue;
    setup_ = made;
    error_code error;
    return made->acceptor.local_endpoint(error).port();
  }
  return 0;
}

void data_channel::target(const asio::ip::address& local, const asio::ip::address& peer, std::uint16_t port) {
  close();
  setup_ = std::make_shared<setup>(loop_.context());
  setup_->active = active_target{{local, 0}, {peer, port}};
  setup_->buffer_bytes = buffer_bytes_;
}

bool data_channel::ready() const {
  return setup_ && setup_->over.empty();
}

asio::awaitable<data_connection> data_channel::open(std::chrono::milliseconds limit) {
  return setup::open(loop_, setup_, protection_, limit, true);
}

asio::awaitable<data_connection> data_channel::open_another(std::optional<std::chrono::milliseconds> limit) {
  return setup::open(loop_, setup_, protection_, limit, false);
}

bool data_channel::passive() const {
  return setup_ && !setup_->active;
}

void data_channel::set_buffers(int bytes) {
  buffer_bytes_ = bytes;
  if (setup_) setup_->buffer_bytes = bytes;
}

void data_channel::close() {
  if (setup_) setup_->end("The data connection was given up.");
  setup_.reset();
}

}  // namespace tarvex::server
