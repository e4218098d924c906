#include "command/listing_lines.h"

#include "base/log.h"
#include "ftp/path.h"

#include <algorithm>
#include <ctime>

namespace tarvex::server {

std::string_view listing_options_skip(std::string_view argument) {
  while (argument.starts_with('-')) {
    const std::size_t blank = argument.find(' ');
    if (blank == std::string_view::npos) return {};
    argument.remove_prefix(std::min(argument.find_first_not_of(' ', blank), argument.size()));
  }
  return argument;
}

std::string listing_lines(const listing_request& request, const tarvex_gridftp_server_control_stat_t* entries,
                          int count) {
  std::string lines;
  const std::time_t now = std::time(nullptr);
  for (int i = 0; i < count; ++i) {
    const std::string_view name = entries[i].name ? entries[i].name : "";
    if (name.empty() || name == ".") continue;
    if (name == ".." || name.find('/') != std::string_view::npos) {
      // No path can name it: a client would take it for another item.
      log_warning("{} {}: \"{}\" is left out, since no path can name it", request.verb, request.path, name);
      continue;
    }
    listing_append(request.form, entries[i], name, now, request.facts, lines);
  }
  return lines;
}

std::string listing_line(const listing_request& request, const tarvex_gridftp_server_control_stat_t& stat) {
  std::string line;
  listing_append(request.form, stat, path_base_name(request.path), std::time(nullptr), request.facts, line);
  return line;
}

}  // namespace tarvex::server
