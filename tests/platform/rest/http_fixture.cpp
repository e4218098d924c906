#include "http_fixture.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

bool receive(int socket, std::string& text) {
  char buffer[65536];
  const ssize_t got = recv(socket, buffer, sizeof buffer, 0);
  if (got > 0) text.append(buffer, static_cast<std::size_t>(got));
  return got > 0;
}

bool body_is_whole(std::string head, const std::string& body) {
  std::transform(head.begin(), head.end(), head.begin(), [](unsigned char byte) { return std::tolower(byte); });
  if (head.find("transfer-encoding: chunked") != std::string::npos) return body.ends_with("0\r\n\r\n");
  const std::size_t length = head.find("content-length: ");
  return length == std::string::npos || body.size() >= std::strtoull(head.c_str() + length + 16, nullptr, 10);
}

bool send_reply(int socket, const reply& chosen) {
  for (std::size_t sent = 0; sent < chosen.bytes.size();) {
    const std::size_t length = std::min(chosen.piece_bytes, chosen.bytes.size() - sent);
    const ssize_t done = send(socket, chosen.bytes.data() + sent, length, MSG_NOSIGNAL);
    if (done < 0) return false;
    sent += static_cast<std::size_t>(done);
  }
  return true;
}

void send_reset(int socket) {
  const linger at_once = {1, 0};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  const sockaddr unspecified = {.sa_family = AF_UNSPEC, .sa_data = {}};
  (void)connect(socket, &unspecified, sizeof unspecified);  // resets at once and keeps the descriptor
}

auto pointers(const std::vector<std::pair<const char*, const char*>>& pairs) {
  std::vector<tarvex_dsi_rest_key_value_t> copy;
  for (const auto& [key, value] : pairs) copy.push_back({const_cast<char*>(key), const_cast<char*>(value)});
  return copy;
}

tarvex_result_t count_completion(void* argument, tarvex_result_t result) {
  ++static_cast<rest_call*>(argument)->completions;
  return result;
}

tarvex_result_t collect(void* argument, void* buffer, size_t length) {
  static_cast<rest_call*>(argument)->body.append(static_cast<const char*>(buffer), length);
  return TARVEX_SUCCESS;
}

/// The module is active for the whole run. The proxies that the environment names do not exist: nobody asked for them.
class rest_environment : public testing::Environment {
  void SetUp() override {
    for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
      setenv(name, "http://127.0.0.1:1", 1);
    }
    ASSERT_EQ(tarvex_module_activate(&tarvex_i_dsi_rest_module), 0);
  }
  void TearDown() override { EXPECT_EQ(tarvex_module_deactivate(&tarvex_i_dsi_rest_module), 0); }
};

const auto* const environment = testing::AddGlobalTestEnvironment(new rest_environment);

}  // namespace

scripted_server::scripted_server(std::vector<reply> replies)
    : replies_(std::move(replies)), listener_(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address = {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener_, generic, length) != 0 || listen(listener_, 16) != 0) std::abort();
  if (getsockname(listener_, generic, &length) != 0) std::abort();
  port_ = ntohs(address.sin_port);
  acceptor_ = std::jthread([this] { accept_all(); });
}

scripted_server::~scripted_server() {
  shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
  threads_.clear();
  for (const int socket : sockets_) close(socket);
  close(listener_);
}

void scripted_server::accept_all() {
  for (int socket; (socket = accept(listener_, nullptr, nullptr)) >= 0;) {
    threads_.emplace_back([this, socket, connection = static_cast<int>(sockets_.size())] {
      while (serve_one(socket, connection)) {
      }
      shutdown(socket, SHUT_RDWR);
    });
    sockets_.push_back(socket);
  }
}

bool scripted_server::serve_one(int socket, int connection) {
  seen_request request = {connection, "", ""};
  while (request.head.find("\r\n\r\n") == std::string::npos) {
    if (!receive(socket, request.head)) return false;
  }
  request.body = request.head.substr(request.head.find("\r\n\r\n") + 4);
  request.head.resize(request.head.size() - request.body.size());
  std::unique_lock lock(mutex_);
  const reply chosen = requests_.size() < replies_.size() ? replies_[requests_.size()] : reply{"", reply::then::close};
  lock.unlock();
  while (!chosen.early && !body_is_whole(request.head, request.body) && receive(socket, request.body)) {
  }
  lock.lock();
  requests_.push_back(request);
  changed_.notify_all();
  lock.unlock();
  const bool sent = send_reply(socket, chosen);
  while (chosen.after == reply::then::hang && receive(socket, request.body)) {
  }
  if (chosen.after == reply::then::reset) send_reset(socket);
  return sent && chosen.after == reply::then::keep;
}

std::string scripted_server::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<seen_request> scripted_server::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void scripted_server::wait_for_request() const {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !requests_.empty(); });
}

std::string answer(int status, const std::string& body, const std::string& headers) {
  const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  return "HTTP/1.1 " + std::to_string(status) + " Text\r\n" + headers + length + body;
}

rest_call& rest_call::run() {
  auto query_pairs = pointers(query);
  auto header_pairs = pointers(headers);
  const tarvex_dsi_rest_key_array_t query_array = {query_pairs.size(), query_pairs.data()};
  const tarvex_dsi_rest_key_array_t header_array = {header_pairs.size(), header_pairs.data()};
  tarvex_dsi_rest_callbacks_t all = callbacks;
  if (all.response_callback == nullptr) all.response_callback = tarvex_dsi_rest_response;
  all.response_callback_arg = &response;
  all.complete_callback = count_completion;
  all.complete_callback_arg = this;
  all.data_write_callback = writer;
  all.data_write_callback_arg = writer_argument;
  all.data_read_callback = reader == nullptr ? collect : reader;
  all.data_read_callback_arg = reader == nullptr ? this : reader_argument;
  const tarvex_result_t result = tarvex_dsi_rest_request(method, url.c_str(), &query_array, &header_array, &all);
  succeeded = result == TARVEX_SUCCESS;
  retryable = tarvex_dsi_rest_error_is_retryable(result);
  message = text_of(result);
  return *this;
}
