#include "api/consent_page.h"

#include <string>

namespace tarvex::emulator {
namespace {

constexpr std::string_view HEAD =
    "<!DOCTYPE html>\n"
    "<html lang=\"en\">\n"
    "<head>\n"
    "<meta charset=\"utf-8\">\n"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
    "<title>Local Box: sign in</title>\n"
    "<style>\n"
    "body { font-family: sans-serif; max-width: 24em; margin: 4em auto; padding: 0 1em; line-height: 1.5 }\n"
    "label, input { display: block; width: 100%; box-sizing: border-box }\n"
    "input, button { font: inherit; padding: 0.4em; margin-bottom: 1em }\n"
    "#error { color: #b00020 }\n"
    "</style>\n"
    "</head>\n"
    "<body>\n"
    "<main>\n";

constexpr std::string_view TAIL = "</main>\n</body>\n</html>\n";

/// For text and for attribute values in double quotes. Control characters have no place in either.
std::string html_escaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
  }
  return escaped;
}

std::string error_line(std::string_view error) {
  return error.empty() ? "" : "<p id=\"error\" role=\"alert\">" + html_escaped(error) + "</p>\n";
}

response html_page(unsigned status, const std::string& body) {
  response page = response_text(status, "text/html; charset=utf-8", std::string(HEAD) + body + std::string(TAIL));
  // No form-action: browsers would apply it to the redirect that follows the form, too, and stop that.
  page.headers.emplace_back("Content-Security-Policy",
                            "default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; frame-ancestors 'none'");
  page.headers.emplace_back("X-Content-Type-Options", "nosniff");
  page.headers.emplace_back("Referrer-Policy", "no-referrer");
  return page;
}

}  // namespace

response consent_page(const consent_view& view) {
  const std::string most = std::to_string(MAX_FIELD_BYTES);
  // The button to grant stands first, so the Enter key presses that one.
  return html_page(view.status,
                   "<h1>Sign in to grant access</h1>\n<p><strong>" + html_escaped(view.app) +
                       "</strong> wants to read and change all files of your account.</p>\n" + error_line(view.error) +
                       "<form method=\"post\">\n"
                       "<label for=\"login\">Account</label>\n"
                       "<input id=\"login\" name=\"login\" autocomplete=\"username\" required maxlength=\"" +
                       most + "\" value=\"" + html_escaped(view.login) +
                       "\">\n"
                       "<label for=\"password\">Password</label>\n"
                       "<input id=\"password\" name=\"password\" type=\"password\" autocomplete=\"current-password\" "
                       "required maxlength=\"" +
                       most +
                       "\">\n"
                       "<button id=\"grant\" name=\"consent\" value=\"grant\">Grant access</button>\n"
                       "<button id=\"deny\" name=\"consent\" value=\"deny\" formnovalidate>Deny</button>\n"
                       "</form>\n");
}

response sign_in_error_page(unsigned status, std::string_view why) {
  return html_page(status, "<h1>This app cannot sign you in</h1>\n" + error_line(why));
}

}  // namespace tarvex::emulator
