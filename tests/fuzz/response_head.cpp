// The head of an HTTP answer, line by line, and what is read from its headers.
#include "response_head.h"

#include "content_range.h"
#include "fuzz.h"
#include "request_headers.h"
#include "url.h"

#include <algorithm>

namespace tarvex::rest {
namespace {

using fuzz::must;

/// Each line stands behind a byte that makes its status.
response_head head_of(std::string_view bytes) {
  response_head head;
  while (!bytes.empty()) {
    const auto status = static_cast<int>(100 + 4 * fuzz::take_byte(bytes) % 500);
    const std::string_view line = bytes.substr(0, std::min(bytes.find('\n'), bytes.size() - 1) + 1);
    tarvex_result_release(head.add_line(line, status));
    bytes.remove_prefix(line.size());
  }
  return head;
}

void check_value(const char* value) {
  const content_range range = parse_content_range(value);
  must(range.first.value_or(0) >= 0 && range.total.value_or(0) >= 0);
  must(range_start(value).value_or(0) >= 0);
  must(multipart_boundary(value).size() <= 70);
  target place;
  const tarvex_result_t made = make_target(value, nullptr, place);
  must(made != TARVEX_SUCCESS || (!place.peer.empty() && place.url.find_first_of("\r\n#") == std::string::npos));
  tarvex_result_release(made);
}

}  // namespace
}  // namespace tarvex::rest

void tarvex::fuzz::run(std::string_view bytes) {
  const rest::response_head head = rest::head_of(bytes);
  must(!head.complete() || head.status() >= 200);
  for (const rest::header_line& line : head.lines()) {
    must(line.name.find(':') == std::string::npos && head.find(line.name.c_str()) != nullptr);
    rest::check_value(line.value.c_str());
  }
}
