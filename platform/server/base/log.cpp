#include "base/log.h"

#include "base/text.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <string>

namespace tarvex::server {

namespace {

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

/// Made at first use, so that what is said before log_start shows too.
spdlog::logger& log_sink() {
  static const std::unique_ptr<spdlog::logger> logger = [] {
    auto made = std::make_unique<spdlog::logger>("", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    made->set_pattern("%Y-%m-%dT%H:%M:%S.%eZ %l [%P] %v", spdlog::pattern_time_type::utc);
    made->flush_on(spdlog::level::trace);
    return made;
  }();
  return *logger;
}

std::string one_line(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char byte : text) {
    if (is_control(byte)) {
      line.append("\\x");
      append_hex(line, {{static_cast<unsigned char>(byte)}});
    } else {
      line.push_back(byte);
    }
  }
  return line;
}

}  // namespace

void log_start(log_level lowest) {
  log_sink().set_level(spdlog_level(lowest));
}

void log_write(log_level level, std::string_view text) {
  log_sink().log(spdlog_level(level), "{}", one_line(text));
}

void log_format(log_level level, fmt::string_view format, fmt::format_args arguments) {
  if (log_sink().should_log(spdlog_level(level))) log_write(level, fmt::vformat(format, arguments));
}

}  // namespace tarvex::server
