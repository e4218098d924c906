// The authorise address: what an app asks for, what the person answers, and the way back to the app.
#include "api/consent_page.h"
#include "api/oauth.h"
#include "api/oauth_form.h"
#include "base/text.h"
#include "box/token_rules.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t CODE_BYTES = 24;

/// An authorise request that has been found to come from an app, and the address that answers go to.
struct authorise_request {
  app from;
  std::string redirect;
};

problem page_problem(unsigned status, std::string_view why) {
  return {sign_in_error_page(status, why)};
}

/// Throws a page where the address to go back to is not known to be the app's: nothing is redirected there (RFC 6749,
/// 4.1.2.1).
authorise_request read_request(const call& of) {
  const std::string id = of.in.parameter("client_id").value_or("");
  auto known = of.box.apps.find(id);
  if (!known)
    throw page_problem(400, id.empty() ? "The address lacks client_id." : "There is no app of this client_id.");
  auto redirect = of.in.parameter("redirect_uri");
  if (!redirect && known->redirect_uris.size() == 1) redirect = known->redirect_uris[0];
  if (!redirect) throw page_problem(400, "The address lacks redirect_uri.");
  if (!known->redirects_to(*redirect))
    throw page_problem(400, "The redirect_uri is not one that is registered for the app.");
  return {std::move(*known), std::move(*redirect)};
}

/// Back to the app with an answer (form encoded) and the state.
response redirect_back(const call& of, const authorise_request& request, const std::string& answer) {
  std::string target = request.redirect + (request.redirect.find('?') == std::string::npos ? "?" : "&") + answer;
  // The state goes back as it came, so it is taken from the query before decoding.
  for (const std::string_view pair : split(of.in.raw_query, '&')) {
    if (!pair.starts_with("state=")) continue;
    target += "&" + std::string(pair);
    break;
  }
  response back = response_empty(302);
  back.headers.emplace_back("Location", std::move(target));
  return back;
}

/// What goes back to the app before anybody is asked; nothing when all is well.
std::optional<response> refusal_for_app(const call& of, const authorise_request& request) {
  if (of.in.parameter("response_type") != "code") {
    return redirect_back(of, request, "error=unsupported_response_type&error_description=response_type+must+be+code");
  }
  if (!request.from.authorised) {
    return redirect_back(of, request,
                         "error=unauthorized_client&"
                         "error_description=This+app+is+not+authorized+by+the+enterprise+admin");
  }
  return std::nullopt;
}

response grant_access(const call& of, const authorise_request& request, const user& account) {
  const std::string code = random_hex(CODE_BYTES);
  transaction hold(of.box.data);
  of.box.single_uses.add_code(code, {.client = request.from.client_id,
                                     .redirect = request.redirect,
                                     .user = account.id,
                                     .expires_at = code_end(of.now())});
  hold.commit();
  return redirect_back(of, request, "code=" + code);
}

/// The account of a name or of its login address.
std::optional<user> account_of(const call& of, std::string_view login) {
  transaction hold(of.box.data);
  auto account = of.box.users.find_named(login);
  const auto at = login.rfind('@');
  if (!account && at != std::string_view::npos) account = of.box.users.find_named(login.substr(0, at));
  if (account && account->name != login && account->login() != login) return std::nullopt;
  return account;
}

/// An account without a password has its name for one: so a demonstration can be signed in to.
std::optional<user> signed_in(const call& of, std::string_view login, std::string_view password) {
  const auto account = account_of(of, login);
  if (!account) return std::nullopt;
  const auto own = of.box.passwords.find(account->name);
  const std::string& expected = own != of.box.passwords.end() ? own->second : account->name;
  return password == expected ? account : std::nullopt;
}

response answer_of_form(const call& of, const authorise_request& request, const pair_list& form) {
  const std::string choice = pair_value(form, "consent").value_or("");
  if (choice == "deny") {
    return redirect_back(of, request,
                         "error=access_denied&error_description=The+user+denied+access+to+your+application");
  }
  const std::string login = pair_value(form, "login").value_or("");
  const std::string password = pair_value(form, "password").value_or("");
  if (login.size() > MAX_FIELD_BYTES || password.size() > MAX_FIELD_BYTES) {
    return consent_page({400, request.from.name, {}, "Account or password is too long."});
  }
  if (choice != "grant" || login.empty() || password.empty()) {
    return consent_page({400, request.from.name, login, "Account and password are both needed."});
  }
  const auto account = signed_in(of, login, password);
  if (!account) return consent_page({403, request.from.name, login, "Wrong account or password."});
  return grant_access(of, request, *account);
}

/// The account that a query names, or the first one.
std::optional<user> account_at_once(const call& of) {
  transaction hold(of.box.data);
  const auto name = of.in.parameter("user");
  return name ? of.box.users.find_named(*name) : of.box.users.find_first();
}

}  // namespace

response oauth_authorise(call& of) {
  const authorise_request request = read_request(of);
  if (auto refusal = refusal_for_app(of, request)) return std::move(*refusal);
  if (of.set.consent != "at_once") return consent_page({200, request.from.name, {}, {}});
  const auto account = account_at_once(of);
  if (!account) throw page_problem(400, "There is no such account.");
  return grant_access(of, request, *account);
}

response oauth_consent(call& of) {
  const authorise_request request = read_request(of);
  if (auto refusal = refusal_for_app(of, request)) return std::move(*refusal);
  pair_list form;
  try {
    form = form_pairs(of.body_text(MAX_FORM_BYTES));
  } catch (const problem&) {
    throw page_problem(413, "The form is too long.");
  }
  return answer_of_form(of, request, form);
}

}  // namespace tarvex::emulator
