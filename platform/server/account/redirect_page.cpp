#include "account/redirect_page.h"

#include "base/text.h"

#include <fmt/core.h>

namespace tarvex::server {

namespace {

std::string page_escaped(std::string_view text) {
  std::string printable, out;
  append_printable(printable, text);
  for (const char byte : printable) {
    switch (byte) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out.push_back(byte);
    }
  }
  return out;
}

}  // namespace

std::string redirect_page(std::string_view status, std::string_view text) {
  const std::string body = fmt::format(
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head><meta charset=\"utf-8\"><title>Sign-in</title></head>\n"
      "<body><p>{}</p></body>\n</html>\n",
      page_escaped(text));
  // The address of the page holds a code: it is to be kept nowhere and told to nobody.
  return fmt::format(
      "HTTP/1.1 {}\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: {}\r\nConnection: close\r\n"
      "Cache-Control: no-store\r\nReferrer-Policy: no-referrer\r\nX-Content-Type-Options: nosniff\r\n"
      "Content-Security-Policy: default-src 'none'; frame-ancestors 'none'\r\n\r\n{}",
      status, body.size(), body);
}

}  // namespace tarvex::server
