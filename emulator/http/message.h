#pragma once

#include "base/text.h"
#include "tarvex_common.hpp"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// Thrown when the peer is gone, too slow or cut off on purpose; ends the connection without an answer.
struct connection_lost {};

/// The body of a request, read once from front to end.
class body_source {
 public:
  virtual ~body_source() = default;

  /// Fills some of `out` (which is not empty); 0 at the end of the body. Blocks. Throws connection_lost.
  [[nodiscard]] virtual std::size_t read(std::span<char> out) = 0;
};

class paced_transport;

struct request {
  std::string method;
  std::string target;     // as it came: path and query
  std::string path;       // of the target, still percent-encoded, without the slashes at its end
  std::string raw_query;  // without '?'
  pair_list query;        // decoded
  pair_list headers;      // in the order in which they came, names as written
  std::optional<std::uint64_t> content_length;
  bool chunked = false;
  bool secure = false;    // came over TLS
  bool loopback = false;  // came from this machine
  body_source* body = nullptr;
  paced_transport* line = nullptr;  // the connection it came over

  /// The first header of that name, whatever its case.
  [[nodiscard]] std::optional<std::string> header(std::string_view name) const;

  /// A query value by name.
  [[nodiscard]] std::optional<std::string> parameter(std::string_view name) const { return pair_value(query, name); }
};

/// A stretch of a file that is sent as the body.
struct file_range {
  descriptor file;
  std::int64_t offset = 0;
  std::int64_t length = 0;
};

/// What happens to an answer on its way out, for faults. All off: it is sent as it is.
struct delivery {
  std::int64_t delay_ms = 0;              // before the first byte
  bool hang = false;                      // send nothing until the client goes away
  bool drop = false;                      // close instead of answering
  std::optional<std::int64_t> cut_after;  // close after so many bytes of the body
  std::int64_t piece_bytes = 0;           // send the body in pieces of so many bytes (0: at once) ...
  std::int64_t piece_delay_ms = 0;        // ... with this pause between them
  bool chunked = false;                   // send the body chunked, without Content-Length
};

struct response {
  unsigned status = 200;
  pair_list headers;
  std::string body;
  std::optional<file_range> file;  // in place of `body`
  bool close = false;              // no further request on this connection
  delivery how;
};

/// The length of its body, whole.
[[nodiscard]] std::int64_t response_length(const response& answer);

/// An answer without a body, and one with a text of a given content type.
[[nodiscard]] response response_empty(unsigned status);
[[nodiscard]] response response_text(unsigned status, std::string content_type, std::string body);

/// The words of a status line.
[[nodiscard]] std::string_view status_reason(unsigned status);

}  // namespace tarvex::emulator
