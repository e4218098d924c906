#include "date.h"

#include <array>
#include <cstdio>

namespace tarvex::box {

time_t date_to_utc(const date_fields& date) {
  const int sign = date.offset_hours < 0 ? -1 : 1;
  std::tm calendar{};
  calendar.tm_year = date.year - 1900;
  calendar.tm_mon = date.month - 1;
  calendar.tm_mday = date.day;
  calendar.tm_hour = date.hour - date.offset_hours;
  calendar.tm_min = date.minute - sign * date.offset_minutes;
  calendar.tm_sec = date.second;
  return timegm(&calendar);
}

std::string date_text(time_t time) {
  std::tm calendar{};
  if (gmtime_r(&time, &calendar) == nullptr) return {};
  std::array<char, 64> text{};
  (void)std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", calendar.tm_year + 1900,
                      calendar.tm_mon + 1, calendar.tm_mday, calendar.tm_hour, calendar.tm_min, calendar.tm_sec);
  return text.data();
}

}  // namespace tarvex::box
