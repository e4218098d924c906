#include "account/account_check.h"

#include "account/json_print.h"
#include "account/terminal.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

namespace tarvex::server {

namespace {

using check_outcome = account_check::outcome;

const char* outcome_word(check_outcome how) {
  switch (how) {
    case check_outcome::ok:
      return "ok";
    case check_outcome::warning:
      return "warning";
    case check_outcome::failed:
      return "failed";
    case check_outcome::skipped:
      break;
  }
  return "not tried";
}

json_document json_of_check(const account_check& check) {
  json_document object = json_made(json_object());
  json_set_text(object.get(), "check", check.name);
  json_set_true(object.get(), "ok", check.how == check_outcome::ok || check.how == check_outcome::warning);
  json_set_text(object.get(), "result", outcome_word(check.how));
  json_set_text(object.get(), "text", check.text);
  json_set_text(object.get(), "hint", check.hint);
  return object;
}

}  // namespace

bool checks_passed(const std::vector<account_check>& checks) {
  return std::none_of(checks.begin(), checks.end(), [](const account_check& check) {
    return check.how == check_outcome::failed || check.how == check_outcome::skipped;
  });
}

void checks_print(const std::string& account, const std::vector<account_check>& checks, bool json) {
  json_document all = json_made(json_array());
  for (const account_check& check : checks) {
    if (json) json_add_document(all.get(), json_of_check(check));
    if (json) continue;
    terminal_say(
        fmt::format("{}: {}{}{}", check.name, outcome_word(check.how), check.text.empty() ? "" : ", ", check.text));
    if (!check.hint.empty()) terminal_say("  " + check.hint);
  }
  if (!json) return;
  const json_document object = json_made(json_object());
  json_set_text(object.get(), "name", account);
  json_set_true(object.get(), "ok", checks_passed(checks));
  json_set_document(object.get(), "checks", std::move(all));
  json_print(object.get());
}

}  // namespace tarvex::server
