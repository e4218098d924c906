#pragma once

#include "ftp/facts.h"
#include "tarvex_gridftp_server.h"

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// How a listing's lines look.
enum class listing_form { list, nlst, mlsd };

/// Formats one line, CRLF included, and appends it to `out`.
/// - list: as `ls -l` prints it ("drwx------ 1 ftp ftp ...", English months, UTC; the year instead of the time of day
///   when the item is older than six months or lies in the future), which every client parses
/// - nlst: the bare name
/// - mlsd: the chosen facts, a blank, the name (RFC 3659 section 7.2)
/// Control characters in the name are replaced by '?'. Negative sizes count as 0.
/// \param name   the name to show; the stat's own is ignored
/// \param now    decides between time of day and year
/// \param facts  for mlsd; the other forms have none
void listing_append(listing_form form, const tarvex_gridftp_server_control_stat_t& stat, std::string_view name,
                    std::time_t now, facts_mask facts, std::string& out);

/// "YYYYMMDDHHMMSS" in UTC (RFC 3659 section 2.3).
std::string listing_timestamp(std::time_t time);
void listing_timestamp_append(std::time_t time, std::string& out);

/// The time that "YYYYMMDDHHMMSS" in UTC means; nothing when it is none.
std::optional<std::time_t> listing_timestamp_parse(std::string_view text);

}  // namespace tarvex::server
