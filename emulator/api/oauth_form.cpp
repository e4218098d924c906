#include "api/oauth_form.h"

#include "api/oauth_grant.h"

namespace tarvex::emulator {

problem oauth_problem(std::string_view error, std::string_view description) {
  const json_ptr body(json_object());
  json_put(body.get(), "error", error);
  json_put(body.get(), "error_description", description);
  return {response_json(400, body.get())};
}

pair_list oauth_form(call& of) {
  pair_list form = form_pairs(of.body_text(MAX_FORM_BYTES));
  if (const auto grant = pair_value(form, "grant_type")) {
    // The names that are known, and nothing else: a client may put a token in the wrong place.
    of.entry->grant = grant_find(*grant) != nullptr ? *grant : "unknown";
  }
  const auto basic = of.in.header("Authorization");
  if (basic && lower(*basic).starts_with("basic ")) {
    const auto both = base64_decode(trim(std::string_view(*basic).substr(6)));
    const auto pieces = split(both ? *both : std::string_view(), ':');
    form.emplace_back("client_id", percent_decode(pieces[0], true));
    if (pieces.size() > 1) form.emplace_back("client_secret", percent_decode(pieces[1], true));
  }
  return form;
}

app oauth_client(const call& of, const pair_list& form) {
  auto known = of.box.apps.find(pair_value(form, "client_id").value_or(""));
  if (!known || !known->has_secret(pair_value(form, "client_secret").value_or(""))) {
    throw oauth_problem("invalid_client", "The client credentials are invalid");
  }
  return std::move(*known);
}

}  // namespace tarvex::emulator
