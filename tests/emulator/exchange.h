#pragma once

#include "tarvex_common.hpp"

#include <jansson.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace emulator_test {

using header_list = std::vector<std::pair<std::string, std::string>>;

inline void json_release(json_t* value) {
  json_decref(value);
}
using json_ptr = tarvex::owner<json_t, json_release>;

/// A request and what its answer must be.
struct exchange {
  const char* name;
  std::string request;  // method and target
  std::string body;
  int status;
  std::string members = {};  // "path=value|path=value" of the JSON body, as reply::at has them
  header_list headers = {};
};

/// An answer as it came.
struct reply {
  int status = 0;  // 0: the connection ended before a status line
  std::string head;
  std::string body;
  bool complete = false;  // the body has the announced length

  [[nodiscard]] std::string header(const std::string& name) const;
  [[nodiscard]] json_ptr json() const;

  /// A value of the JSON body by a path such as "entries.0.name": a text as it is, anything else as JSON, "" for none.
  [[nodiscard]] std::string at(std::string_view path) const;

  /// Fails the running test where members differ from "path=value|path=value".
  void expect(std::string_view members) const;
};

/// One connection, for tests that care about its bytes.
class raw_connection {
 public:
  explicit raw_connection(int port);

  bool send(std::string_view bytes) const;
  [[nodiscard]] reply receive(bool has_body = true);
  [[nodiscard]] bool ended() { return pending_.empty() && !read_more(); }  // the server has closed

 private:
  bool read_more();

  tarvex::descriptor socket_;
  std::string pending_;
};

/// {"name":...,"parent":{"id":...}} with further members behind, each with its comma.
[[nodiscard]] std::string named(const std::string& name, const std::string& parent = "0", const std::string& more = {});

/// A multipart/form-data body with the boundary "edge"; its content type and further headers.
[[nodiscard]] std::string form(const std::string& attributes, const std::string& bytes);
[[nodiscard]] header_list form_type(const header_list& more = {});

/// A body in chunks of 1000 bytes.
[[nodiscard]] std::string chunked(const std::string& body);

/// "sha=<base64>" and the hexadecimal form of a SHA-1.
[[nodiscard]] std::string digest_header(std::string_view bytes);
[[nodiscard]] std::string sha1_hex(std::string_view bytes);

/// Bytes that differ from place to place.
[[nodiscard]] std::string sample(std::size_t count);

}  // namespace emulator_test
