#include "api/oauth_grant.h"

#include "api/oauth_assertion.h"
#include "api/oauth_form.h"
#include "api/token_scope.h"
#include "base/text.h"
#include "box/token_rules.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

/// The answer that gives a pair. Only its `expires_in` depends on when it is made.
response pair_answer(const call& of, const token_pair& pair) {
  const json_ptr body(json_object());
  json_put(body.get(), "access_token", of.box.tokens.access_token(pair));
  json_put(body.get(), "expires_in", std::max<std::int64_t>(0, pair.access_expires_at - of.now()));
  json_put(body.get(), "restricted_to", json_ptr(json_array()));
  json_put(body.get(), "token_type", "bearer");
  if (pair.refresh_expires_at != 0) json_put(body.get(), "refresh_token", of.box.tokens.refresh_token(pair));
  return response_json(200, body.get());
}

token_order order_of(const call& of, const app& client) {
  return {.set = of.set, .now = of.now(), .client = client.client_id};
}

/// Box's own libraries send no redirect_uri with the code; one that comes must be that of the authorise request.
response grant_code(const call& of, const app& client, const pair_list& form) {
  const std::string code = pair_value(form, "code").value_or("");
  const auto known = of.box.single_uses.find_code(code);
  if (!known || known->client != client.client_id) {
    throw oauth_problem("invalid_grant", "Auth code doesn't exist or is invalid for the client");
  }
  if (pair_value(form, "redirect_uri").value_or(known->redirect) != known->redirect) {
    throw oauth_problem("invalid_grant", "The redirect_uri is not the one of the authorize request");
  }
  if (known->spent || known->expires_at <= of.now()) {
    throw oauth_problem("invalid_grant", "The authorization code has expired");
  }
  of.box.single_uses.spend_code(code);
  return pair_answer(of, tokens_begin(of.box.tokens, order_of(of, client), known->user, true));
}

response grant_refresh(const call& of, const app& client, const pair_list& form) {
  const std::string token = pair_value(form, "refresh_token").value_or("");
  const renewal made = tokens_renew(of.box.tokens, order_of(of, client), token);
  if (!made.pair) throw oauth_problem("invalid_grant", made.refusal);
  return pair_answer(of, *made.pair);
}

/// The account of an app itself: an enterprise's token opens it and no person's. Its root is empty until somebody
/// invites it into a folder. A Box without apps has none, and takes its first account for all that is not a person's.
std::optional<user> service_account(const call& of, const app& client, std::string_view enterprise) {
  if (!client.registered) return of.box.users.find_first();
  if (client.enterprise_id.empty() || client.enterprise_id != enterprise) return std::nullopt;
  return of.box.ensure_account("AutomationUser_" + client.client_id, of.now());
}

/// Server-side tokens do not rotate and live side by side.
response subject_answer(const call& of, const app& client, std::string_view type, std::string_view id) {
  std::optional<user> account;
  if (type == "user") account = of.box.users.find(number_of(id).value_or(-1));
  if (type == "enterprise") account = service_account(of, client, id);
  if (!account) throw oauth_problem("invalid_grant", "Grant credentials are invalid");
  return pair_answer(of, tokens_begin(of.box.tokens, order_of(of, client), account->id, false));
}

response grant_client(const call& of, const app& client, const pair_list& form) {
  return subject_answer(of, client, pair_value(form, "box_subject_type").value_or(""),
                        pair_value(form, "box_subject_id").value_or(""));
}

response grant_assertion(const call& of, const app& client, const pair_list& form) {
  const assertion_subject subject = assertion_check(of, client, pair_value(form, "assertion").value_or(""));
  return subject_answer(of, client, subject.type, subject.id);
}

struct grant_row {
  std::string_view type;
  grant_handler handle;
};

constexpr grant_row GRANTS[] = {
    {"authorization_code", grant_code},
    {"refresh_token", grant_refresh},
    {"client_credentials", grant_client},
    {"urn:ietf:params:oauth:grant-type:jwt-bearer", grant_assertion},
    {"urn:ietf:params:oauth:grant-type:token-exchange", token_exchange},
};

}  // namespace

grant_handler grant_find(std::string_view grant_type) {
  for (const grant_row& candidate : GRANTS) {
    if (candidate.type == grant_type) return candidate.handle;
  }
  return nullptr;
}

}  // namespace tarvex::emulator
