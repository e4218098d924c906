#include "ftp/listing.h"

#include "base/text.h"

#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

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

[[gnu::format(printf, 2, 3)]] void append_format(std::string& out, const char* format, ...) {
  char text[160];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (length > 0) out.append(text, std::min(static_cast<std::size_t>(length), sizeof text - 1));
}

std::string mode_text(mode_t mode) {
  std::string text = S_ISDIR(mode) ? "d" : S_ISLNK(mode) ? "l" : "-";
  for (int bit = 8; bit >= 0; --bit) text += (mode & (1U << bit)) != 0 ? "xwr"[bit % 3] : '-';
  return text;
}

/// What the permissions allow, in the letters of RFC 3659 section 7.5.5. Files are never appended to ("a").
std::string perm_fact(mode_t mode) {
  const bool folder = S_ISDIR(mode);
  std::string letters;
  if ((mode & S_IRUSR) != 0) letters += folder ? "el" : "r";
  if ((mode & S_IWUSR) != 0) letters += folder ? "cdfmp" : "dfw";
  return letters;
}

void append_long(const tarvex_gridftp_server_control_stat_t& stat, std::string_view name, std::time_t now,
                 std::string& out) {
  const std::tm time = broken_down(stat.mtime);
  append_format(out, "%s %3lu ftp      ftp      %12" PRId64 " %s %2d ", mode_text(stat.mode).c_str(),
                static_cast<unsigned long>(stat.nlink), std::max<tarvex_off_t>(stat.size, 0), MONTHS[time.tm_mon],
                time.tm_mday);
  if (stat.mtime > now || stat.mtime <= now - HALF_A_YEAR_S) {
    append_format(out, "%5d ", time.tm_year + 1900);
  } else {
    append_format(out, "%02d:%02d ", time.tm_hour, time.tm_min);
  }
  append_printable(out, name);
  if (S_ISLNK(stat.mode) && stat.symlink_target != nullptr) {
    out += " -> ";
    append_printable(out, stat.symlink_target);
  }
}

void append_facts(const tarvex_gridftp_server_control_stat_t& stat, std::string_view name, std::string& out) {
  const bool folder = S_ISDIR(stat.mode);
  append_format(out, "type=%s;", !folder ? "file" : name == "." ? "cdir" : "dir");
  if (!folder) append_format(out, "size=%" PRId64 ";", std::max<tarvex_off_t>(stat.size, 0));
  append_format(out, "modify=%s;perm=%s;UNIX.mode=%04o;unique=%xg%x; ", listing_timestamp(stat.mtime).c_str(),
                perm_fact(stat.mode).c_str(), stat.mode & 07777U, stat.dev, stat.ino);
  append_printable(out, name);
}

}  // namespace

void listing_append(listing_form form, const tarvex_gridftp_server_control_stat_t& stat, std::string_view name,
                    std::time_t now, std::string& out) {
  switch (form) {
    case listing_form::list:
      append_long(stat, name, now, out);
      break;
    case listing_form::nlst:
      append_printable(out, name);
      break;
    case listing_form::mlsd:
      append_facts(stat, name, out);
      break;
  }
  out += "\r\n";
}

std::string listing_timestamp(std::time_t time) {
  const std::tm fields = broken_down(time);
  std::string text;
  append_format(text, "%04d%02d%02d%02d%02d%02d", fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday,
                fields.tm_hour, fields.tm_min, fields.tm_sec);
  return text;
}

std::optional<std::time_t> listing_timestamp_parse(std::string_view text) {
  constexpr std::size_t DIGITS = 14;
  const bool digits = text.find_first_not_of("0123456789") == std::string_view::npos;
  if (text.size() != DIGITS || !digits) return std::nullopt;
  const auto field = [&](std::size_t at, std::size_t length) {
    return static_cast<int>(parse_integer(text.substr(at, length)).value_or(0));
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
