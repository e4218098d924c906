#pragma once

#include "ftp/listing.h"
#include "tarvex_gridftp_server.h"

#include <string>
#include <string_view>

namespace tarvex::server {

/// What a client wants to see of a listing.
struct listing_request {
  std::string verb;
  listing_form form = listing_form::list;
  std::string path;  ///< absolute, normal
  facts_mask facts = ALL_FACTS;
};

/// The path of a listing's argument, without the options of ls that clients put before it ("-la /a"): they change
/// nothing. "--" ends them, so that a folder "-a" is "-- -a", or "./-a".
std::string_view listing_options_skip(std::string_view argument);

/// Lines of a batch. The folder itself is left out: clients take "." for an item of it.
std::string listing_lines(const listing_request& request, const tarvex_gridftp_server_control_stat_t* entries,
                          int count);

/// The one line of an item that is no folder.
std::string listing_line(const listing_request& request, const tarvex_gridftp_server_control_stat_t& stat);

}  // namespace tarvex::server
