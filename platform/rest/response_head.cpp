#include "response_head.h"

#include "error.h"

#include <strings.h>

namespace tarvex::rest {
namespace {

constexpr std::size_t HEAD_LIMIT_BYTES = 256 << 10;

std::string_view trim_line(std::string_view text) noexcept {
  constexpr std::string_view BLANKS = " \t\r\n";
  const std::size_t first = text.find_first_not_of(BLANKS);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

}  // namespace

void response_head::add_header(std::string_view line) {
  if (line.front() == ' ' || line.front() == '\t') {  // a folded line goes on with the one before
    if (!lines_.empty()) lines_.back().value.append(" ").append(trim_line(line));
    return;
  }
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return;
  lines_.push_back({std::string(trim_line(line.substr(0, colon))), std::string(trim_line(line.substr(colon + 1)))});
}

tarvex_result_t response_head::add_line(std::string_view line, int status) {
  if (complete_) return TARVEX_SUCCESS;  // a trailer
  size_bytes_ += line.size();
  if (size_bytes_ > HEAD_LIMIT_BYTES) return fail(attempt::useless, "The headers of the server's answer are too long.");
  if (line.starts_with("HTTP/")) {
    lines_.clear();
  } else if (!trim_line(line).empty()) {
    add_header(line);
  } else if (status >= 200) {
    status_ = status;
    complete_ = true;
  }
  return TARVEX_SUCCESS;
}

const char* response_head::find(const char* name) const noexcept {
  for (auto line = lines_.rbegin(); line != lines_.rend(); ++line) {
    if (strcasecmp(line->name.c_str(), name) == 0) return line->value.c_str();
  }
  return nullptr;
}

}  // namespace tarvex::rest
