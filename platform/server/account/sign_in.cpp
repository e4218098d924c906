#include "account/sign_in.h"

#include "account/account_failure.h"
#include "account/browser.h"
#include "account/sign_in_link.h"
#include "account/terminal.h"

#include <string_view>
#include <utility>

namespace tarvex::server {

namespace {

using verdict = redirect_answer::verdict;

constexpr std::chrono::minutes BROWSER_LIMIT{15};

struct hint_row {
  std::string_view error;  ///< what Box's words begin with
  std::string_view hint;
};
constexpr hint_row HINTS[] = {
    {"unauthorized_client",
     "; an administrator has to authorise the app in Box's Admin Console (again after each change of the app)"},
    {"invalid_client",
     "; compare client_id and client_secret_file in [box] with the app's page in Box's developer console"},
    {"invalid_grant: Grant credentials",
     "; the app needs \"App + Enterprise Access\" and \"Generate user access tokens\", and the user has to be of its "
     "enterprise"},
    {"redirect_uri_mismatch", "; add redirect of [box] to the redirect URIs of the app"},
    {"unsupported_grant_type", "; the app was made for another authentication method"},
};

redirect_address usable_redirect(const configuration& config) {
  const auto redirect = redirect_parse(config.box_redirect);
  if (!redirect) throw account_failure(account_exit::wrong_use, "redirect in [box] is no address to come back to");
  return *redirect;
}

consent granted(redirect_answer answer, std::string redirect, std::unique_ptr<redirect_listener> browser) {
  if (answer.how == verdict::granted) return {std::move(answer.code), std::move(redirect), std::move(browser)};
  const std::string text = "Box says no: " + answer.reason + refusal_hint(answer.reason);
  if (browser) browser->show(false, "You are not signed in. " + text);
  throw account_failure(account_exit::refused, text);
}

consent ask_in_browser(const configuration& config) {
  const redirect_address redirect = usable_redirect(config);
  if (!redirect.loopback || redirect.secure)
    throw account_failure(account_exit::wrong_use, "redirect in [box] leads to another host: use --no-browser");
  auto listener = std::make_unique<redirect_listener>(redirect);
  const std::string back = redirect.with_port(listener->port());
  const std::string state = new_sign_in_state();
  const std::string address = authorise_address(config.box_authorize_url, config.box_client_id, back, state);
  terminal_say(address);
  terminal_note(browser_open(address)
                    ? "Your browser shows Box's page; grant access there. If it does not, open the address above."
                    : "There is no browser to be started; open the address above on this computer.");
  redirect_answer answer = listener->wait(state, BROWSER_LIMIT);
  return granted(std::move(answer), back, std::move(listener));
}

consent ask_for_address(const configuration& config) {
  const redirect_address redirect = usable_redirect(config);
  const std::string state = new_sign_in_state();
  terminal_note("Open this address in a browser on any computer, and grant access:");
  terminal_say(authorise_address(config.box_authorize_url, config.box_client_id, config.box_redirect, state));
  terminal_note("The browser then shows that it cannot reach a page. Paste that page's address here:");
  std::string line;
  if (!terminal_read_line(line)) throw account_failure(account_exit::refused, "no address was entered");
  const std::size_t begin = line.find_first_not_of(" \t");
  const std::size_t end = line.find_last_not_of(" \t");
  redirect_answer answer;
  if (begin != std::string::npos)
    answer = redirect_read_pasted(std::string_view(line).substr(begin, end - begin + 1), redirect, state);
  wipe(line);
  if (answer.how == verdict::elsewhere)
    throw account_failure(
        account_exit::wrong_use,
        "that is not the address that Box sends the browser to, which begins with " + config.box_redirect);
  if (answer.how == verdict::wrong_state)
    throw account_failure(account_exit::refused,
                          "that is not the answer to this sign-in (its state is another); run the command again");
  return granted(std::move(answer), config.box_redirect, nullptr);
}

}  // namespace

consent ask_for_consent(const configuration& config, bool with_browser) {
  return with_browser ? ask_in_browser(config) : ask_for_address(config);
}

std::string refusal_hint(const std::string& reason) {
  for (const hint_row& row : HINTS)
    if (reason.starts_with(row.error)) return std::string(row.hint);
  return {};
}

}  // namespace tarvex::server
