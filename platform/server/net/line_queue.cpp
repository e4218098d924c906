#include "net/line_queue.h"

#include "base/text.h"

#include <utility>

namespace tarvex::server {

namespace {

/// RFC 959 section 4.1.3. An ABOR with an argument is none to be proud of, but the client wants to stop.
bool is_abort(std::string_view line) {
  return same_word(take_word(line), "ABOR");
}

}  // namespace

bool line_queue::add(std::string_view bytes) {
  bool queued = false;
  if (!overrun_ && full()) {
    overrun_ = true;
    lines_.push_back({.overrun = true});
    queued = true;
  }
  for (auto event = reader_.next(bytes); event != line_reader::event::more; event = reader_.next(bytes)) {
    control_line line{.too_long = event == line_reader::event::too_long};
    if (!line.too_long) line.text = reader_.take_line();
    line.abort = is_abort(line.text);
    queued |= push(std::move(line));
  }
  return queued;
}

std::optional<control_line> line_queue::take() {
  if (lines_.empty()) return std::nullopt;
  control_line line = std::move(lines_.front());
  lines_.pop_front();
  return line;
}

void line_queue::clear() {
  lines_.clear();
  reader_.clear();
  overrun_ = false;
}

/// Counted afresh for each packet: the owner of the lines may have taken any of them.
bool line_queue::full() const {
  std::size_t bytes = 0;
  for (const auto& line : lines_) bytes += sizeof(line) + line.text.size();
  return bytes >= limit_;
}

bool line_queue::push(control_line line) {
  if (overrun_ && !line.abort) return false;
  if (overrun_ && !lines_.empty() && lines_.back().abort && !lines_.back().aborted) return false;
  lines_.push_back(std::move(line));
  return true;
}

}  // namespace tarvex::server
