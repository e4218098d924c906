#include "date.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace tarvex::box {

namespace {

/// The form that Box writes, a digit for each 0 and any byte for the sign of the offset.
constexpr std::string_view FORM = "0000-00-00T00:00:00+00:00";

int tarvex_l_box_number(const char* digits, int count) {
  int number = 0;
  for (int i = 0; i < count; ++i) number = number * 10 + (digits[i] - '0');
  return number;
}

bool tarvex_l_box_has_form(std::string_view text) {
  constexpr size_t SIGN = 19;
  for (size_t i = 0; i < FORM.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (i == SIGN ? text[i] != '+' && text[i] != '-' : FORM[i] == '0' ? !digit : text[i] != FORM[i]) return false;
  }
  return true;
}

}  // namespace

int date_scan(const char* text, date_fields& date) {
  const std::string_view begin(text, strnlen(text, FORM.size()));
  if (begin.size() < FORM.size() || !tarvex_l_box_has_form(begin)) {
    return std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d%3d:%2d", &date.year, &date.month, &date.day, &date.hour,
                       &date.minute, &date.second, &date.offset_hours, &date.offset_minutes);
  }
  const int hours = tarvex_l_box_number(text + 20, 2);
  date = {.year = tarvex_l_box_number(text, 4),
          .month = tarvex_l_box_number(text + 5, 2),
          .day = tarvex_l_box_number(text + 8, 2),
          .hour = tarvex_l_box_number(text + 11, 2),
          .minute = tarvex_l_box_number(text + 14, 2),
          .second = tarvex_l_box_number(text + 17, 2),
          .offset_hours = text[19] == '-' ? -hours : hours,
          .offset_minutes = tarvex_l_box_number(text + 23, 2)};
  return 8;
}

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
