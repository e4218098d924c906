#include "oauth/token_request.h"

#include "base/json.h"
#include "base/text.h"
#include "base/wall_clock.h"

#include <algorithm>
#include <string_view>

namespace tarvex::server {

namespace {

using verdict = token_answer::verdict;

/// Longer than Box ever lets a token live; what is above it is no time but a mistake.
constexpr json_int_t LONGEST_LIFE_S = 366 * 86400;
constexpr std::size_t LONGEST_REASON_BYTES = 300;

/// What Box says of itself goes into logs and replies as one line of printable text.
std::string one_line(std::string_view text) {
  std::string line;
  append_printable(line, text.substr(0, LONGEST_REASON_BYTES));
  return line;
}

void take_refusal(const json_t* body, int status, token_answer& out) {
  const std::string error = json_text_of(body, "error").value_or("");
  const std::string description = json_text_of(body, "error_description").value_or("");
  out.reason = one_line(error + (description.empty() ? "" : ": " + description));
  if (error.empty()) out.reason = "Box answered with status " + std::to_string(status) + " and no error code";
  if (error.empty() || status == 429 || status >= 500) return;
  out.how = error == "invalid_grant" ? verdict::grant_refused : verdict::app_refused;
  // "exp" alone, and not as a part of "expired".
  const std::size_t place = description.find("exp");
  out.clock_refused =
      place != std::string::npos && (place + 3 == description.size() || !is_alphanumeric(description[place + 3]));
}

void take_tokens(const json_t* body, bool refreshes, token_answer& out) {
  const json_t* const life = json_object_get(body, "expires_in");
  out.access_token = secret(json_text_of(body, "access_token").value_or(""));
  out.refresh_token = secret(json_text_of(body, "refresh_token").value_or(""));
  const bool lives =
      json_is_integer(life) && json_integer_value(life) >= 0 && json_integer_value(life) < LONGEST_LIFE_S;
  if (!lives || out.access_token.text().empty() || (refreshes && out.refresh_token.text().empty())) {
    out.reason = "Box's answer holds no tokens";
    return;
  }
  const auto now = wall_clock();
  out.expires_at = now + std::chrono::seconds(json_integer_value(life));
  out.how = verdict::granted;
}

std::string refusal_text(const https_answer& answer) {
  const json_document body = json_object_parse(answer.body.text());
  token_answer taken;
  take_refusal(body.get(), answer.status, taken);
  return taken.reason;
}

secret form_with_app(const oauth_app& app, form_pairs form) {
  form.emplace_back("client_id", app.client_id);
  form.emplace_back("client_secret", app.client_secret.text());
  secret encoded = form_encode(form);
  for (auto& [name, value] : form) wipe(value);
  return encoded;
}

}  // namespace

token_answer token_ask(const token_endpoint& endpoint, const oauth_app& app, form_pairs form, bool refreshes,
                       int cancel_fd) {
  const secret encoded = form_with_app(app, std::move(form));
  const https_answer answer =
      https_ask(endpoint.https, {.url = endpoint.token_url, .form = &encoded.text(), .cancel_fd = cancel_fd});
  token_answer out;
  out.date = answer.date;
  out.retry_after_s = answer.retry_after_s;
  if (answer.status == 0) {
    out.reason = "no answer from Box: " + answer.error;
    return out;
  }
  const json_document body = json_object_parse(answer.body.text());
  if (answer.status == 200) {
    take_tokens(body.get(), refreshes, out);
  } else {
    take_refusal(body.get(), answer.status, out);
  }
  return out;
}

std::string token_revoke(const token_endpoint& endpoint, const oauth_app& app, const std::string& token) {
  const secret encoded = form_with_app(app, {{"token", token}});
  const https_answer answer = https_ask(endpoint.https, {.url = endpoint.revoke_url, .form = &encoded.text()});
  if (answer.status == 200) return {};
  return answer.status == 0 ? "no answer from Box: " + answer.error : refusal_text(answer);
}

}  // namespace tarvex::server
