/// \file
/// Times as Box and the credential write them.
#pragma once

#include <ctime>
#include <string>

namespace tarvex::box {

/// The numbers of a date with an offset from UTC, as scanned.
struct date_fields {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  int offset_hours = 0;  ///< with sign
  int offset_minutes = 0;
};

/// Reads a date as Box writes it, 2020-01-02T03:04:05-07:00.
/// \return how many of the eight numbers could be read; those that could not stay as they were
int date_scan(const char* text, date_fields& date);

/// Seconds since the epoch. The offset minutes take the sign of the offset hours, so that an offset of minus zero hours
/// and 30 minutes counts as plus 30 minutes, on purpose.
time_t date_to_utc(const date_fields& date);

/// The time in UTC as Box takes it: 2020-01-02T03:04:05Z.
std::string date_text(time_t time);

}  // namespace tarvex::box
