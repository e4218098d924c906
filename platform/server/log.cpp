#include "log.h"

#include "text.h"

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdarg>
#include <cstdio>
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

void write_formatted(log_level level, const char* format, std::va_list arguments) {
  if (!log_sink().should_log(spdlog_level(level))) return;
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  log_write(level, text);
}

}  // namespace

void log_start(log_level lowest) {
  log_sink().set_level(spdlog_level(lowest));
}

void log_write(log_level level, std::string_view text) {
  log_sink().log(spdlog_level(level), "{}", one_line(text));
}

#define TARVEX_DEFINE_LOG(name, level)         \
  void name(const char* format, ...) {         \
    std::va_list arguments;                    \
    va_start(arguments, format);               \
    write_formatted(level, format, arguments); \
    va_end(arguments);                         \
  }

TARVEX_DEFINE_LOG(log_debug, log_level::debug)
TARVEX_DEFINE_LOG(log_info, log_level::info)
TARVEX_DEFINE_LOG(log_warning, log_level::warning)
TARVEX_DEFINE_LOG(log_error, log_level::error)

#undef TARVEX_DEFINE_LOG

}  // namespace tarvex::server
