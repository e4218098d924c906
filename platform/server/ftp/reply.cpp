#include "ftp/reply.h"

#include "base/text.h"
#include "tarvex_common.hpp"
#include "tarvex_gridftp_server.h"

namespace tarvex::server {

namespace {

constexpr char TELNET_IAC = '\xff';  ///< would begin a telnet command in the client; doubled it is a byte (RFC 854)
constexpr std::string_view UNKNOWN_FAILURE = "Operation failed.";

void append_line(std::string& out, int code, char separator, std::string_view line) {
  out.append(std::to_string(code)).push_back(separator);
  out.append(reply_clean(line)).append("\r\n");
}

void append_lines(std::vector<std::string>& lines, const char* text) {
  if (text == nullptr) return;
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    if (end != 0) lines.emplace_back(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
}

/// The first FTP response error of the chain with its causes comes first, so that its class word is the first line;
/// what was wrapped around it follows.
std::vector<std::string> error_lines(tarvex_result_t result) {
  tarvex_object_t* const outermost = tarvex_error_peek(result);
  tarvex_object_t* response = outermost;
  while (response != nullptr && !tarvex_object_type_match(response, &TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION)) {
    response = tarvex_error_get_cause(response);
  }
  tarvex_object_t* const start = response == nullptr ? outermost : response;

  std::vector<std::string> lines;
  append_lines(lines, c_string(tarvex_error_print_chain(start)).get());
  for (tarvex_object_t* error = outermost; error != start; error = tarvex_error_get_cause(error)) {
    append_lines(lines, c_string(tarvex_error_print(error)).get());
  }
  if (lines.empty()) lines.emplace_back(UNKNOWN_FAILURE);
  return lines;
}

}  // namespace

std::string reply_clean(std::string_view line) {
  std::string clean;
  for (const char byte : line) {
    clean.push_back(is_control(byte) ? '?' : byte);
    if (byte == TELNET_IAC) clean.push_back(byte);
  }
  return clean;
}

std::string reply_format(int code, const std::vector<std::string>& lines) {
  if (lines.size() <= 1) return reply_format(code, lines.empty() ? std::string_view() : lines.front());
  std::string out;
  for (const std::string& line : lines) append_line(out, code, '-', line);
  append_line(out, code, ' ', "End.");
  return out;
}

std::string reply_format(int code, std::string_view line) {
  std::string out;
  append_line(out, code, ' ', line);
  return out;
}

std::string reply_block(int code, std::string_view first, const std::vector<std::string>& inner,
                        std::string_view last) {
  std::string out = reply_block_first(code, first);
  for (const std::string& line : inner) out += reply_block_inner(line);
  append_line(out, code, ' ', last);
  return out;
}

std::string reply_block_first(int code, std::string_view first) {
  std::string out;
  append_line(out, code, '-', first);
  return out;
}

/// The blank keeps an inner line that begins with the code and a blank from ending the reply (RFC 959 section 4.2).
std::string reply_block_inner(std::string_view line) {
  return " " + reply_clean(line) + "\r\n";
}

std::string reply_from_error(tarvex_result_t result, int default_code) {
  const int code = tarvex_gfs_ftp_response_error_code(tarvex_error_peek(result));
  return reply_format(code == 0 ? default_code : code, error_lines(result));
}

std::string error_text(tarvex_result_t result) {
  std::string text;
  for (const std::string& line : error_lines(result)) {
    if (!text.empty()) text += "; ";
    text += line;
  }
  return text;
}

}  // namespace tarvex::server
