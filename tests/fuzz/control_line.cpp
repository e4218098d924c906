// Bytes of a control connection: cut into lines however packets fall, into verb and argument, paths, and replies.
#include "base/text.h"
#include "ftp/command_line.h"
#include "ftp/path.h"
#include "ftp/reply.h"
#include "fuzz.h"
#include "net/line_reader.h"

#include <algorithm>
#include <string>
#include <vector>

namespace tarvex::server {
namespace {

using fuzz::must;

constexpr std::string_view TOO_LONG = "\n";  // no line holds one

/// The lines of bytes that come in packets of `step`.
std::vector<std::string> lines_of(std::string_view bytes, std::size_t step, std::size_t limit) {
  line_reader reader(limit);
  std::vector<std::string> lines;
  for (; !bytes.empty(); bytes.remove_prefix(std::min(step, bytes.size()))) {
    std::string_view packet = bytes.substr(0, step);
    for (auto event = reader.next(packet); event != line_reader::event::more; event = reader.next(packet))
      lines.push_back(event == line_reader::event::line ? reader.take_line() : std::string(TOO_LONG));
  }
  return lines;
}

/// Nothing in a reply can end it early, or steer a terminal.
void check_reply(const std::string& reply) {
  must(reply.ends_with("\r\n"));
  std::string_view rest = reply;
  for (rest.remove_suffix(2); !rest.empty(); rest.remove_prefix(1)) must(control_length(rest) == 0);
}

void check_path(std::string_view argument) {
  const auto path = path_normalise("/home/alice", argument);
  if (!path) return;
  const std::string closed = *path == "/" ? *path : *path + "/";
  must(path->starts_with('/') && closed.find("//") == std::string::npos);
  must(closed.find("/./") == std::string::npos && closed.find("/../") == std::string::npos);
  must(path->find_first_of(std::string_view("\0\r\n", 3)) == std::string::npos);
  must(path_normalise("/elsewhere", *path) == path);
  const std::string quoted = path_quoted(*path) + " rest";
  std::string_view rest = quoted;
  must(path_take(rest) == path && rest == "rest");
}

void check_line(const std::string& line) {
  const command_line command = command_line_parse(line);
  must(command.verb.find(' ') == std::string::npos);
  (void)command_line_is_http(command);
  std::string_view rest = command.argument;
  (void)path_take(rest);
  check_path(command.argument);
  check_reply(reply_format(500, command.argument));
  check_reply(reply_block_inner(command.argument));
}

}  // namespace
}  // namespace tarvex::server

void tarvex::fuzz::run(std::string_view bytes) {
  using server::line_reader;
  const std::size_t limit = take_byte(bytes) % 2 == 0 ? 40 : line_reader::MAX_LINE_BYTES;
  const auto lines = server::lines_of(bytes, bytes.size() + 1, limit);
  for (const std::size_t step : {1U, 3U}) must(server::lines_of(bytes, step, limit) == lines);
  for (const std::string& line : lines) {
    if (line == server::TOO_LONG) continue;
    must(line.size() < limit && line.find('\n') == std::string::npos);
    server::check_line(line);
  }
}
