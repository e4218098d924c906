#include "command/listing_lines.h"

#include "base/log.h"
#include "base/text.h"
#include "ftp/path.h"

#include <algorithm>
#include <ctime>

namespace tarvex::server {

namespace {

/// What clients put before a path: letters that ls takes.
bool is_option_word(std::string_view word) {
  constexpr std::string_view LETTERS = "1aACdFghGlLnoRrsStTuU";
  return word.size() > 1 && word.front() == '-' && word.find_first_not_of(LETTERS, 1) == std::string_view::npos;
}

}  // namespace

std::string_view listing_options_skip(std::string_view argument) {
  while (argument.starts_with('-')) {
    std::string_view rest = argument;
    const std::string_view word = take_word(rest);
    if (word == "--") return rest;
    if (!is_option_word(word)) break;
    argument = rest.substr(std::min(rest.find_first_not_of(' '), rest.size()));
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
