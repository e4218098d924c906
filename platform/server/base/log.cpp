#include "base/log.h"

#include "base/text.h"
#include "base/write_at_once.h"

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace tarvex::server {

namespace {

/// What a pipe takes whole (PIPE_BUF), the line's end included.
constexpr std::size_t LINE_BYTES_MAX = 4096;
constexpr std::string_view CUT_MARK = " ...";

spdlog::level::level_enum spdlog_level(log_level level) {
  switch (level) {
    case log_level::debug:
      return spdlog::level::debug;
    case log_level::info:
      return spdlog::level::info;
    case log_level::warning:
      return spdlog::level::warn;
    case log_level::error:
      break;
  }
  return spdlog::level::err;
}

using line_counter = std::atomic<std::uint64_t>;

/// In memory that sessions inherit: what one process had to drop another can tell of, and a session may end before the
/// reader goes on. Without such memory each process counts for itself.
line_counter& dropped_lines() {
  static line_counter own{0};
  static line_counter& shared = [&]() -> line_counter& {
    void* const memory = mmap(nullptr, sizeof own, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? own : *new (memory) line_counter{0};
  }();
  return shared;
}

/// Takes a line's end off that is more than a line may have, between two characters of UTF-8.
void cut(std::string& line) {
  if (line.size() <= LINE_BYTES_MAX) return;
  std::size_t length = LINE_BYTES_MAX - CUT_MARK.size() - 1;
  while (length > 0 && (static_cast<unsigned char>(line[length]) & 0xc0U) == 0x80) --length;
  line.resize(length);
  line.append(CUT_MARK).push_back('\n');
}

/// Standard error, without ever waiting for whoever reads it: what it does not take is dropped and counted.
class stderr_sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  stderr_sink() : base_sink(std::make_unique<spdlog::pattern_formatter>(PATTERN, spdlog::pattern_time_type::utc)) {}

 private:
  static constexpr const char* PATTERN = "%Y-%m-%dT%H:%M:%S.%eZ %l [%P] %v";

  void sink_it_(const spdlog::details::log_msg& message) override {
    const std::uint64_t dropped = dropped_lines().exchange(0);
    std::string text(torn_ ? "\n" : "");
    if (dropped > 0) {
      append(text, {spdlog::source_loc(), "", spdlog::level::warn,
                    fmt::format("{} lines of the log were dropped: nobody read them", dropped)});
    }
    append(text, message);
    cut(text);
    // The count goes out with the next line or not at all: alone it would take the room of that line.
    const std::size_t written = write_at_once(STDERR_FILENO, text);
    if (written > 0) torn_ = written < text.size();
    if (written < text.size()) dropped_lines() += dropped + 1;
  }

  void append(std::string& text, const spdlog::details::log_msg& message) {
    spdlog::memory_buf_t formatted;
    formatter_->format(message, formatted);
    text.append(formatted.data(), formatted.size());
  }

  void flush_() override {}

  bool torn_ = false;  ///< a terminal took only the beginning of the last line
};

/// Made at first use, so that what is said before log_start shows too.
spdlog::logger& log_sink() {
  static spdlog::logger logger("", std::make_shared<stderr_sink>());
  return logger;
}

std::string one_line(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  while (!text.empty()) {
    const std::size_t control = control_length(text);
    for (const char byte : text.substr(0, control)) {
      line.append("\\x");
      append_hex(line, {{static_cast<unsigned char>(byte)}});
    }
    if (control == 0) line.push_back(text.front());
    text.remove_prefix(std::max<std::size_t>(control, 1));
  }
  return line;
}

}  // namespace

void log_start(log_level lowest) {
  (void)dropped_lines();  // before any session is forked
  log_sink().set_level(spdlog_level(lowest));
}

void log_write(log_level level, std::string_view text) {
  log_sink().log(spdlog_level(level), "{}", one_line(text));
}

void log_format(log_level level, fmt::string_view format, fmt::format_args arguments) {
  if (log_sink().should_log(spdlog_level(level))) log_write(level, fmt::vformat(format, arguments));
}

}  // namespace tarvex::server
