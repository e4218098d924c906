#pragma once

#include <fmt/core.h>

#include <string_view>

namespace tarvex::server {

enum class log_level { debug, info, warning, error };

/// Sets the log up: lines on standard error, "TIME LEVEL [PID] TEXT". Once, before any thread starts or any process is
/// forked.
void log_start(log_level lowest);

/// Writes one line of up to 4 KiB (what is longer ends in "..."); control bytes in `text` are written as \xNN, so that
/// nobody forges lines. Any thread.
///
/// Never waits for a reader of standard error: lines that a full pipe or a stopped terminal does not take are dropped,
/// and a line tells how many as soon as it takes some again. The process has to ignore SIGPIPE.
void log_write(log_level level, std::string_view text);

/// The line of a format and its arguments. A level that is off costs no formatting.
void log_format(log_level level, fmt::string_view format, fmt::format_args arguments);

/// Forms of log_write with a format that the compiler checks. Never hand them tokens, passwords or bodies.
template <typename... Values>
void log_debug(fmt::format_string<Values...> format, Values&&... values) {
  log_format(log_level::debug, format, fmt::make_format_args(values...));
}
template <typename... Values>
void log_info(fmt::format_string<Values...> format, Values&&... values) {
  log_format(log_level::info, format, fmt::make_format_args(values...));
}
template <typename... Values>
void log_warning(fmt::format_string<Values...> format, Values&&... values) {
  log_format(log_level::warning, format, fmt::make_format_args(values...));
}
template <typename... Values>
void log_error(fmt::format_string<Values...> format, Values&&... values) {
  log_format(log_level::error, format, fmt::make_format_args(values...));
}

}  // namespace tarvex::server
