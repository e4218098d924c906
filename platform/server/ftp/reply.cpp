#include "ftp/reply.h"

#include "base/text.h"

namespace tarvex::server {

namespace {

constexpr char IAC = '\xff';  ///< would begin a telnet command in the client; doubled it is a byte (RFC 854)

void append_line(std::string& out, int code, char separator, std::string_view line) {
  out.append(std::to_string(code)).push_back(separator);
  out.append(reply_clean(line)).append("\r\n");
}

}  // namespace

std::string reply_clean(std::string_view line) {
  std::string clean;
  append_printable(clean, line);
  for (std::size_t at = clean.find(IAC); at != std::string::npos; at = clean.find(IAC, at + 2))
    clean.insert(at, 1, IAC);
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

}  // namespace tarvex::server
