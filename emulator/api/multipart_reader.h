#pragma once

#include "http/message.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// The head of one part of a multipart/form-data body.
struct part_head {
  std::string name;
  bool has_file_name = false;
};

/// Reads a multipart/form-data body (RFC 7578) from front to end, whatever its length.
class multipart_reader {
 public:
  multipart_reader(body_source& from, std::string_view boundary);

  /// Goes on to the next part (past what is left of the present one); nothing behind the last one.
  /// Throws problem 400 when the body ends before the closing boundary.
  [[nodiscard]] std::optional<part_head> next_part();

  /// Some of the present part's bytes, valid until the next call; empty at its end. Throws as above.
  [[nodiscard]] std::string_view read();

 private:
  void fill();

  body_source& from_;
  std::string delimiter_;  // CRLF, two hyphens, boundary
  std::vector<char> bytes_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

/// The boundary of a multipart content type; nothing when it is another type or has none.
[[nodiscard]] std::optional<std::string> multipart_boundary(std::string_view content_type);

}  // namespace tarvex::emulator
