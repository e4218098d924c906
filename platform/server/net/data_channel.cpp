#include "net/data_channel.h"

#include "base/log.h"
#include "net/data_socket.h"

#include <boost/asio/io_context.hpp>

#include <random>

namespace tarvex::server {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

constexpr int BACKLOG = 8;

struct active_target {
  tcp::endpoint from, to;
};

bool acceptor_listen(tcp::acceptor& acceptor, const tcp::endpoint& endpoint) {
  error_code error, ignored;
  acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(BACKLOG, error);
  if (error) acceptor.close(ignored);
  return !error;
}

}  // namespace

struct data_channel::state : std::enable_shared_from_this<state> {
  explicit state(event_loop& loop) : context(loop.context()), acceptor(context), limit(loop) {}

  asio::io_context& context;
  tcp::acceptor acceptor;
  asio::ip::address peer;
  std::optional<active_target> active;
  std::shared_ptr<tcp::socket> connecting;
  loop_timer limit;
  opened call;

  void reset();
  void accept();
  void accepted(tcp::socket socket);
  void connect();
  void deliver(std::unique_ptr<data_socket> connection, std::string error);
};

void data_channel::state::reset() {
  error_code ignored;
  acceptor.close(ignored);
  if (connecting) connecting->close(ignored);
  connecting.reset();
  active.reset();
  limit.cancel();
  call = nullptr;
}

void data_channel::state::accept() {
  acceptor.async_accept([self = shared_from_this()](error_code error, tcp::socket socket) {
    if (error == asio::error::operation_aborted || !self->call) return;
    if (error) return self->deliver(nullptr, "The data connection could not be accepted: " + error.message() + ".");
    self->accepted(std::move(socket));
  });
}

void data_channel::state::accepted(tcp::socket socket) {
  error_code error;
  const tcp::endpoint from = socket.remote_endpoint(error);
  if (error || address_plain(from.address()) != peer) {
    log_warning("data connection from {} refused: the client is {}",
                error ? "a vanished peer" : from.address().to_string(), peer.to_string());
    return accept();
  }
  deliver(std::make_unique<data_socket>(data_socket{std::move(socket)}), {});
}

void data_channel::state::connect() {
  error_code error;
  connecting = std::make_shared<tcp::socket>(context);
  connecting->open(active->to.protocol(), error);
  if (!error) connecting->bind(active->from, error);
  if (error) return deliver(nullptr, "The data connection could not be made: " + error.message() + ".");
  connecting->async_connect(active->to, [self = shared_from_this(), socket = connecting](error_code failed) {
    if (self->connecting != socket || !self->call) return;
    if (failed) return self->deliver(nullptr, "The data connection could not be made: " + failed.message() + ".");
    self->deliver(std::make_unique<data_socket>(data_socket{std::move(*socket)}), {});
  });
}

void data_channel::state::deliver(std::unique_ptr<data_socket> connection, std::string error) {
  const opened receiver = std::exchange(call, nullptr);
  reset();
  if (connection) {
    error_code ignored;
    connection->socket.set_option(asio::socket_base::keep_alive(true), ignored);
    connection->socket.set_option(tcp::no_delay(true), ignored);
  }
  receiver(std::move(connection), std::move(error));
}

data_channel::data_channel(event_loop& loop) : state_(std::make_shared<state>(loop)) {}
data_channel::~data_channel() {
  state_->reset();
}

std::uint16_t data_channel::listen(const std::string& host, const std::string& peer_host, const port_range& ports) {
  close();
  error_code error;
  const asio::ip::address address = asio::ip::make_address(host, error);
  if (error) return 0;
  state_->peer = asio::ip::make_address(peer_host, error);
  if (error) return 0;
  const unsigned first = ports ? ports->first : 0;
  const unsigned count = ports ? ports->second - first + 1U : 1;
  const unsigned start = std::random_device()() % count;
  for (unsigned tried = 0; tried < count; ++tried) {
    const auto port = static_cast<std::uint16_t>(first + (start + tried) % count);
    if (acceptor_listen(state_->acceptor, {address, port})) return state_->acceptor.local_endpoint(error).port();
  }
  return 0;
}

void data_channel::target(const std::string& local_host, const std::string& peer_host, std::uint16_t port) {
  close();
  error_code error;
  const asio::ip::address from = asio::ip::make_address(local_host, error);
  if (error) return;
  const asio::ip::address to = asio::ip::make_address(peer_host, error);
  if (error) return;
  state_->active = active_target{{from, 0}, {to, port}};
}

bool data_channel::ready() const {
  return state_->acceptor.is_open() || state_->active.has_value();
}

void data_channel::open(std::chrono::milliseconds limit, opened call) {
  state_->call = std::move(call);
  state_->limit.start(limit, [self = state_.get()] { self->deliver(nullptr, "No data connection came."); });
  if (state_->active) return state_->connect();
  state_->accept();
}

void data_channel::close() {
  state_->reset();
}

}  // namespace tarvex::server
