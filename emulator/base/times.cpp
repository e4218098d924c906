#include "base/times.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

namespace tarvex::emulator {
namespace {

/// By gmtime_r and strftime in the "C" locale, which the program never leaves: English names of days and months.
std::string format(const char* form, std::int64_t seconds) {
  const std::time_t value = seconds;
  std::tm parts{};
  gmtime_r(&value, &parts);
  std::array<char, 64> text{};
  const std::size_t length = std::strftime(text.data(), text.size(), form, &parts);
  return std::string(text.data(), length);
}

/// `count` digits at `at`, or -1.
int digits(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return -1;
  int value = 0;
  for (const char c : text.substr(at, count)) {
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

/// Minutes east of UTC of "Z", "+hh:mm" or "-hh:mm".
std::optional<int> offset_minutes_of(std::string_view text) {
  if (text == "Z" || text == "z") return 0;
  if (text.size() != 6 || (text[0] != '+' && text[0] != '-') || text[3] != ':') return std::nullopt;
  const int hours = digits(text, 1, 2);
  const int minutes = digits(text, 4, 2);
  if (hours < 0 || hours > 23 || minutes < 0 || minutes > 59) return std::nullopt;
  return (text[0] == '-' ? -1 : 1) * (hours * 60 + minutes);
}

}  // namespace

std::int64_t time_now_us() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

std::int64_t time_now() {
  return time_now_us() / 1000000;
}

std::string time_text(std::int64_t seconds, std::int64_t offset_minutes) {
  const std::int64_t distance = offset_minutes < 0 ? -offset_minutes : offset_minutes;
  std::array<char, 48> offset{};
  std::snprintf(offset.data(), offset.size(), "%c%02d:%02d", offset_minutes < 0 ? '-' : '+',
                static_cast<int>(distance / 60), static_cast<int>(distance % 60));
  return format("%Y-%m-%dT%H:%M:%S", seconds + offset_minutes * 60) + offset.data();
}

std::string time_text_utc(std::int64_t seconds) {
  return format("%Y-%m-%dT%H:%M:%SZ", seconds);
}

std::string time_text_http(std::int64_t seconds) {
  return format("%a, %d %b %Y %H:%M:%S GMT", seconds);
}

std::optional<std::int64_t> time_parse(std::string_view text) {
  // At least one character stands behind the seconds. A fraction would be read as an offset, and is refused as one:
  // Box takes whole seconds only.
  if (text.size() < 20 || text[4] != '-' || text[7] != '-' || (text[10] != 'T' && text[10] != 't') || text[13] != ':' ||
      text[16] != ':') {
    return std::nullopt;
  }
  const std::array<int, 6> field = {digits(text, 0, 4),  digits(text, 5, 2),  digits(text, 8, 2),
                                    digits(text, 11, 2), digits(text, 14, 2), digits(text, 17, 2)};
  const auto offset = offset_minutes_of(text.substr(19));
  // What is not digits is -1. A leap second is second 60; days beyond the month are for the calendar below.
  static constexpr std::array<int, 6> LEAST = {0, 1, 1, 0, 0, 0};
  static constexpr std::array<int, 6> MOST = {9999, 12, 31, 23, 59, 60};
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] < LEAST[i] || field[i] > MOST[i]) return std::nullopt;
  }
  if (!offset) return std::nullopt;
  const auto date = std::chrono::year(field[0]) / std::chrono::month(static_cast<unsigned>(field[1])) /
                    std::chrono::day(static_cast<unsigned>(field[2]));
  if (!date.ok()) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  const std::int64_t seconds = days * 86400 + field[3] * 3600L + field[4] * 60L + field[5] - *offset * 60L;
  // Box answers 400 for times before 1970.
  if (seconds < 0) return std::nullopt;
  return seconds;
}

}  // namespace tarvex::emulator
