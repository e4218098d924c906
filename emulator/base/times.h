#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::emulator {

/// Seconds since 1970, now.
[[nodiscard]] std::int64_t time_now();

/// Microseconds since 1970, now.
[[nodiscard]] std::int64_t time_now_us();

/// RFC 3339 with a numeric offset, whole seconds: 2012-12-12T10:53:43-08:00.
[[nodiscard]] std::string time_text(std::int64_t seconds, std::int64_t offset_minutes);

/// RFC 3339 in UTC with "Z", as upload sessions show their end.
[[nodiscard]] std::string time_text_utc(std::int64_t seconds);

/// RFC 9110 date, for the Date header.
[[nodiscard]] std::string time_text_http(std::int64_t seconds);

/// Reads what Box takes in requests: whole seconds with "Z" or a numeric offset, not before 1970. Nothing otherwise.
[[nodiscard]] std::optional<std::int64_t> time_parse(std::string_view text);

}  // namespace tarvex::emulator
