#include "ftp/listing.h"

#include "base/number.h"
#include "base/text.h"

#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>

namespace tarvex::server {

namespace {

constexpr std::time_t HALF_A_YEAR_S = 31556952 / 2;
constexpr std::time_t YEAR_1 = -62135596800;     ///< 0001-01-01T00:00:00Z
constexpr std::time_t YEAR_9999 = 253402300799;  ///< 9999-12-31T23:59:59Z
constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

/// Broken down in UTC; times beyond four-digit years count as the nearest that has one.
std::tm broken_down(std::time_t time) {
  const std::time_t shown = std::clamp(time, YEAR_1, YEAR_9999);
  std::tm fields = {};
  gmtime_r(&shown, &fields);
  return fields;
}

void append_mode(std::string& out, mode_t mode) {
  out += S_ISDIR(mode) ? "d" : S_ISLNK(mode) ? "l" : "-";
  for (int bit = 8; bit >= 0; --bit) out += (mode & (1U << bit)) != 0 ? "xwr"[bit % 3] : '-';
}

void append_long(const tarvex_gridftp_server_control_stat_t& stat, std::string_view name, std::time_t now,
                 std::string& out) {
  const std::tm time = broken_down(stat.mtime);
  append_mode(out, stat.mode);
  // The columns are as wide as ls makes them: old clients cut lines at fixed places.
  fmt::format_to(std::back_inserter(out), " {:3} ftp      ftp      {:12} {} {:2} ", stat.nlink,
                 std::max<tarvex_off_t>(stat.size, 0), MONTHS[time.tm_mon], time.tm_mday);
  if (stat.mtime > now || stat.mtime <= now - HALF_A_YEAR_S) {
    fmt::format_to(std::back_inserter(out), "{:5} ", time.tm_year + 1900);
  } else {
    fmt::format_to(std::back_inserter(out), "{:02}:{:02} ", time.tm_hour, time.tm_min);
  }
  append_printable(out, name);
  if (S_ISLNK(stat.mode) && stat.symlink_target != nullptr) {
    out += " -> ";
    append_printable(out, stat.symlink_target);
  }
}

}  // namespace

void listing_append(listing_form form, const tarvex_gridftp_server_control_stat_t& stat, std::string_view name,
                    std::time_t now, facts_mask facts, std::string& out) {
  switch (form) {
    case listing_form::list:
      append_long(stat, name, now, out);
      break;
    case listing_form::nlst:
      append_printable(out, name);
      break;
    case listing_form::mlsd:
      facts_append(stat, name, facts, out);
      out += ' ';
      append_printable(out, name);
      break;
  }
  out += "\r\n";
}

void listing_timestamp_append(std::time_t time, std::string& out) {
  const std::tm fields = broken_down(time);
  append_number(out, fields.tm_year + 1900, 10, 4);
  for (const int field : {fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec}) {
    append_number(out, field, 10, 2);
  }
}

std::string listing_timestamp(std::time_t time) {
  std::string text;
  listing_timestamp_append(time, text);
  return text;
}

std::optional<std::time_t> listing_timestamp_parse(std::string_view text) {
  constexpr std::size_t DIGITS = 14;
  const bool digits = text.find_first_not_of("0123456789") == std::string_view::npos;
  if (text.size() != DIGITS || !digits) return std::nullopt;
  const auto field = [&](std::size_t at, std::size_t length) {
    return parse_number<int>(text.substr(at, length)).value_or(0);
  };
  std::tm fields = {};
  fields.tm_year = field(0, 4) - 1900;
  fields.tm_mon = field(4, 2) - 1;
  fields.tm_mday = field(6, 2);
  fields.tm_hour = field(8, 2);
  fields.tm_min = field(10, 2);
  fields.tm_sec = field(12, 2);
  const std::time_t time = timegm(&fields);
  // What timegm had to carry over (30 February) was no time.
  return listing_timestamp(time) == text ? std::optional(time) : std::nullopt;
}

}  // namespace tarvex::server
