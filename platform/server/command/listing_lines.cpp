#include "command/listing_lines.h"

#include "base/log.h"
#include "base/text.h"
#include "session/session.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace tarvex::server {

namespace {

/// What clients put before a path: letters that ls takes.
bool is_option_word(std::string_view word) {
  constexpr std::string_view LETTERS = "1aACdFghGlLnoRrsStTuU";
  return word.size() > 1 && word.front() == '-' && word.find_first_not_of(LETTERS, 1) == std::string_view::npos;
}

void append_item(const listing_request& request, tarvex_gridftp_server_control_stat_t stat, std::string_view name,
                 std::time_t now, std::string& lines) {
  if (request.read_only) stat.mode &= ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
  listing_append(request.form, stat, name, now, request.facts, lines);
}

}  // namespace

listing_request listing_request_of(const session& client, std::string verb, listing_form form, std::string path) {
  return {std::move(verb), form, std::move(path), client.settings.mlst_facts,
          client.login.permissions == account_permissions::read_only};
}

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
    append_item(request, entries[i], name, now, lines);
  }
  return lines;
}

std::string listing_line(const listing_request& request, const tarvex_gridftp_server_control_stat_t& stat,
                         std::string_view name) {
  std::string line;
  append_item(request, stat, name, std::time(nullptr), line);
  return line;
}

}  // namespace tarvex::server
