// The token address and the one that revokes.
#include "api/oauth.h"
#include "api/oauth_form.h"
#include "api/oauth_grant.h"
#include "base/text.h"
#include "box/token_rules.h"

namespace tarvex::emulator {

response oauth_token(call& of) {
  const pair_list form = oauth_form(of);
  const grant_handler handle = grant_find(pair_value(form, "grant_type").value_or(""));
  if (handle == nullptr) throw oauth_problem("unsupported_grant_type", "The grant_type is missing or unknown");
  const app client = oauth_client(of, form);
  if (!client.authorised) {
    throw oauth_problem("unauthorized_client", "This app is not authorized by the enterprise admin");
  }
  transaction hold(of.box.data);
  response answer = handle(of, client, form);
  hold.commit();
  return answer;
}

response oauth_revoke(call& of) {
  const pair_list form = oauth_form(of);
  const app client = oauth_client(of, form);
  transaction hold(of.box.data);
  if (!tokens_revoke(of.box.tokens, client.client_id, pair_value(form, "token").value_or(""))) {
    throw oauth_problem("invalid_client", "The token was not issued to this client");
  }
  hold.commit();
  return response_empty(200);
}

void oauth_note_grant(call& of) {
  try {
    (void)oauth_form(of);
  } catch (const problem&) {
    // A form that is too long has no grant that anybody counts.
  }
}

}  // namespace tarvex::emulator
