#include "ftp/command_line.h"

#include "base/text.h"

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace {

constexpr auto HTTP_METHODS =
    std::to_array<std::string_view>({"GET", "POST", "HEAD", "PUT", "OPTIONS", "DELETE", "CONNECT", "PATCH", "TRACE"});

}  // namespace

command_line command_line_parse(std::string_view line) {
  const std::string_view verb = take_word(line);
  return {std::string(verb), std::string(line)};
}

bool command_line_is_http(const command_line& line) {
  // The first line may have been too long to be looked at: a header's line tells as well.
  if (line.verb.find(':') != std::string::npos) return true;
  return std::any_of(HTTP_METHODS.begin(), HTTP_METHODS.end(),
                     [&](std::string_view method) { return same_word(line.verb, method); });
}

}  // namespace tarvex::server
