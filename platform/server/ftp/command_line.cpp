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
  // A method alone is not enough: GET might be somebody's idea of an FTP command, and gets a 502 like any other.
  return line.argument.find("HTTP/") != std::string::npos &&
         std::find(HTTP_METHODS.begin(), HTTP_METHODS.end(), line.verb) != HTTP_METHODS.end();
}

}  // namespace tarvex::server
