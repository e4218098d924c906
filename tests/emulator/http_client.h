#pragma once

#include <jansson.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace emulator_test {

using header_list = std::vector<std::pair<std::string, std::string>>;

struct json_releaser {
  void operator()(json_t* value) const { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, json_releaser>;

/// An answer as it came.
struct reply {
  int status = 0;  // 0: the connection ended before a status line
  std::string head;
  std::string body;
  bool complete = false;  // the body has the announced length

  [[nodiscard]] std::string header(std::string_view name) const;
  [[nodiscard]] json_ptr json() const;

  /// A value of the JSON body by a path such as "entries.0.name": a text as it is, anything else as JSON, "" for none.
  [[nodiscard]] std::string at(std::string_view path) const;
};

/// One connection, for tests that care about its bytes.
class raw_connection {
 public:
  explicit raw_connection(int port);
  raw_connection(const raw_connection&) = delete;
  raw_connection& operator=(const raw_connection&) = delete;
  ~raw_connection();

  bool send(std::string_view bytes) const;
  [[nodiscard]] reply receive(bool has_body = true);
  [[nodiscard]] bool ended();  // the server has closed

 private:
  bool read_more();

  int socket_;
  std::string pending_;
};

/// Sends each request on a connection of its own.
class http_client {
 public:
  http_client(int port, std::string token) : port_(port), token_(std::move(token)) {}

  reply send(const std::string& method, const std::string& target, const std::string& body = {},
             const header_list& headers = {}) const;

  /// The bytes of such a request. With a header "Transfer-Encoding: chunked" the body is sent in chunks.
  [[nodiscard]] std::string text(const std::string& method, const std::string& target, const std::string& body,
                                 const header_list& headers) const;

 private:
  int port_;
  std::string token_;
};

/// A multipart/form-data body with the boundary "edge", and its content type.
[[nodiscard]] std::string form(const std::string& attributes, const std::string& bytes);
[[nodiscard]] header_list form_type();

/// "sha=<base64>" and the hexadecimal form of a SHA-1.
[[nodiscard]] std::string digest_header(std::string_view bytes);
[[nodiscard]] std::string sha1_hex(std::string_view bytes);

/// Bytes that differ from place to place.
[[nodiscard]] std::string sample(std::size_t count);

}  // namespace emulator_test
