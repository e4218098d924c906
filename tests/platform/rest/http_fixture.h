#pragma once

#include "../common/results.h"
#include "tarvex_dsi_rest.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// What the server sends for one request, and what it does then. `hang`: nothing, until the client leaves.
struct reply {
  enum class then { keep, close, reset, hang };
  std::string bytes;
  then after = then::keep;
  std::size_t piece_bytes = std::string::npos;  ///< of one send
  bool early = false;                           ///< does not wait for the request's body
};

/// A request as it came over the wire, chunk framing and all.
struct seen_request {
  int connection;
  std::string head;
  std::string body;
};

/// An HTTP server on 127.0.0.1 that answers the nth request with the nth reply and remembers what it was sent.
class scripted_server {
 public:
  explicit scripted_server(std::vector<reply> replies);
  ~scripted_server();

  [[nodiscard]] std::string url(const std::string& path = "/") const;
  [[nodiscard]] std::vector<seen_request> requests() const;
  void wait_for_request() const;

 private:
  void accept_all();
  bool serve_one(int socket, int connection);

  std::vector<reply> replies_;
  int listener_;
  int port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<seen_request> requests_;
  std::vector<int> sockets_;
  std::vector<std::jthread> threads_;
  std::jthread acceptor_;
};

/// "HTTP/1.1 STATUS ..." with a Content-Length.
std::string answer(int status, const std::string& body, const std::string& headers = "");

/// One request and what became of it.
struct rest_call {
  const char* method = "GET";
  std::string url;
  std::vector<std::pair<const char*, const char*>> query = {};
  std::vector<std::pair<const char*, const char*>> headers = {};
  tarvex_dsi_rest_write_t writer = nullptr;
  void* writer_argument = nullptr;
  tarvex_dsi_rest_read_t reader = nullptr;  ///< null: the answer's body goes to `body`
  void* reader_argument = nullptr;
  tarvex_dsi_rest_callbacks_t callbacks = {};  ///< the others; without a response callback: the stock one

  bool succeeded = false;
  bool retryable = false;
  int completions = 0;
  std::string message = {};  ///< of the error
  std::string body = {};
  tarvex_dsi_rest_response_arg_t response = {};

  rest_call& run();
};
