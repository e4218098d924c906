#pragma once

#include <string_view>

namespace tarvex::server {

enum class log_level { debug, info, warning, error };

/// Sets the log up: lines on standard error, "TIME LEVEL [PID] TEXT". Once, before any thread starts.
void log_start(log_level lowest);

/// Writes one line; control bytes in `text` are written as \xNN, so that nobody forges lines. Any thread.
void log_write(log_level level, std::string_view text);

/// printf-style forms of log_write. Never hand them tokens, passwords or bodies.
[[gnu::format(printf, 1, 2)]] void log_debug(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void log_info(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void log_warning(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void log_error(const char* format, ...);

}  // namespace tarvex::server
