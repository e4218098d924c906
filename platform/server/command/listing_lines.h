#pragma once

#include "ftp/listing.h"
#include "tarvex_gridftp_server.h"

#include <string>
#include <string_view>

namespace tarvex::server {

class session;

/// What a client wants to see of a listing.
struct listing_request {
  std::string verb;
  listing_form form = listing_form::list;
  std::string path;  ///< absolute, normal
  facts_mask facts = ALL_FACTS;
  bool read_only = false;  ///< the account may not write, whatever the storage permits
};

/// What a client wants to see, as its session has it set.
listing_request listing_request_of(const session& client, std::string verb, listing_form form, std::string path);

/// The path of a listing's argument, without the options of ls that clients put before it ("-la /a"): they change
/// nothing. "--" ends them, so that a folder "-a" is "-- -a", or "./-a".
std::string_view listing_options_skip(std::string_view argument);

/// Lines of a batch. The folder itself is left out: clients take "." for an item of it.
std::string listing_lines(const listing_request& request, const tarvex_gridftp_server_control_stat_t* entries,
                          int count);

/// The one line of an item, under a name.
std::string listing_line(const listing_request& request, const tarvex_gridftp_server_control_stat_t& stat,
                         std::string_view name);

}  // namespace tarvex::server
