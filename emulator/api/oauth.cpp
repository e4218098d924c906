#include "api/oauth.h"

#include "base/text.h"
#include "base/times.h"

namespace tarvex::emulator {
namespace {

constexpr std::size_t MAX_FORM_BYTES = 64UL * 1024;
constexpr std::int64_t CODE_LIFE_S = 30;
constexpr std::int64_t REFRESH_LIFE_S = 60L * 86400;

problem oauth_problem(std::string_view error, std::string_view description) {
  const json_ptr body(json_object());
  json_put(body.get(), "error", error);
  json_put(body.get(), "error_description", description);
  return {response_json(400, body.get())};
}

/// The form, and client id and secret from an Authorization header, where RFC 6749 (2.3.1) allows them, too.
pair_list read_form(call& of) {
  pair_list form = form_pairs(of.body_text(MAX_FORM_BYTES));
  const auto basic = of.in.header("Authorization");
  if (basic && lower(*basic).starts_with("basic ")) {
    const auto both = base64_decode(trim(std::string_view(*basic).substr(6)));
    const auto pieces = split(both ? *both : std::string_view(), ':');
    form.emplace_back("client_id", percent_decode(pieces[0], true));
    if (pieces.size() > 1) form.emplace_back("client_secret", percent_decode(pieces[1], true));
  }
  return form;
}

void check_client(const pair_list& form) {
  if (pair_value(form, "client_id").value_or("").empty() || pair_value(form, "client_secret").value_or("").empty()) {
    throw oauth_problem("invalid_client", "The client credentials are invalid");
  }
}

/// Tokens are hex, which needs no escaping anywhere.
std::string new_token(const call& of, std::string_view kind, std::int64_t user, std::int64_t life_s) {
  std::string token = random_hex(24);
  of.box.users.add_token(token, kind, user, time_now() + life_s);
  return token;
}

response tokens_for(const call& of, std::int64_t user, bool with_refresh) {
  const json_ptr body(json_object());
  const std::int64_t life_s = of.set.access_token_lifetime_s;
  json_put(body.get(), "access_token", new_token(of, ACCESS_TOKEN, user, life_s));
  json_put(body.get(), "expires_in", life_s);
  json_put(body.get(), "restricted_to", json_ptr(json_array()));
  json_put(body.get(), "token_type", "bearer");
  if (with_refresh) json_put(body.get(), "refresh_token", new_token(of, REFRESH_TOKEN, user, REFRESH_LIFE_S));
  return response_json(200, body.get());
}

/// A code or refresh token can be used once.
response by_token(const call& of, std::string_view token, std::string_view kind, std::string_view unknown,
                  std::string_view expired) {
  const auto known = of.box.users.find_token(token, kind, time_now());
  if (!known) throw oauth_problem("invalid_grant", unknown);
  if (known->expired || known->spent) throw oauth_problem("invalid_grant", expired);
  of.box.users.spend_token(token);
  return tokens_for(of, known->user, true);
}

response grant_code(const call& of, const pair_list& form) {
  const std::string code = pair_value(form, "code").value_or("");
  return by_token(of, code, AUTHORISATION_CODE, "Auth code doesn't exist or is invalid for the client",
                  "The authorization code has expired");
}

response grant_refresh(const call& of, const pair_list& form) {
  const std::string token = pair_value(form, "refresh_token").value_or("");
  return by_token(of, token, REFRESH_TOKEN, "Invalid refresh token", "Refresh token has expired");
}

/// The account that a server-side grant names, or the first one for an enterprise.
response grant_subject(const call& of, std::string_view type, std::string_view subject) {
  const auto account = type == "user" ? of.box.users.find(number_of(subject).value_or(-1)) : of.box.users.find_first();
  if (!account) throw oauth_problem("invalid_grant", "Grant credentials are invalid");
  return tokens_for(of, account->id, false);
}

response grant_client(const call& of, const pair_list& form) {
  return grant_subject(of, pair_value(form, "box_subject_type").value_or(""),
                       pair_value(form, "box_subject_id").value_or(""));
}

/// The claims are looked at, the signature is not: the local Box knows no application's key.
response grant_assertion(const call& of, const pair_list& form) {
  const std::string assertion = pair_value(form, "assertion").value_or("");
  const auto pieces = split(assertion, '.');
  std::string middle(pieces.size() == 3 ? pieces[1] : std::string_view());
  // JSON web tokens have the URL alphabet of base64, without padding (RFC 7515).
  for (char& c : middle) c = c == '-' ? '+' : c == '_' ? '/' : c;
  middle.append((4 - middle.size() % 4) % 4, '=');
  const json_ptr claims = json_parse(base64_decode(middle).value_or(""));
  const auto expires_at = json_number_at(claims.get(), "exp");
  const auto jti = json_text_at(claims.get(), "jti").value_or("");
  if (!expires_at || *expires_at < time_now() || *expires_at > time_now() + 60) {
    throw oauth_problem("invalid_grant", "Please check the 'exp' claim. Check the system time");
  }
  if (jti.size() < 16 || jti.size() > 128) throw oauth_problem("invalid_grant", "Please check the 'jti' claim.");
  return grant_subject(of, json_text_at(claims.get(), "box_sub_type").value_or(""),
                       json_text_at(claims.get(), "sub").value_or(""));
}

struct row {
  std::string_view grant;
  response (*answer)(const call& of, const pair_list& form);
};

constexpr row GRANTS[] = {
    {"authorization_code", grant_code},
    {"refresh_token", grant_refresh},
    {"client_credentials", grant_client},
    {"urn:ietf:params:oauth:grant-type:jwt-bearer", grant_assertion},
};

}  // namespace

response oauth_authorise(call& of) {
  const auto back = of.in.parameter("redirect_uri");
  require(back && of.in.parameter("client_id") && of.in.parameter("response_type") == "code",
          "response_type=code, client_id and redirect_uri are required");
  transaction hold(of.box.data);
  bool created = false;
  const auto name = of.in.parameter("user");
  const auto account = name ? of.box.users.ensure(*name, time_now(), created) : of.box.users.find_first();
  require(account && !created, "There is no such account");
  const std::string code = new_token(of, AUTHORISATION_CODE, account->id, CODE_LIFE_S);
  hold.commit();
  std::string target = *back + (back->find('?') == std::string::npos ? "?" : "&") + "code=" + code;
  // The state goes back as it came, so it is taken from the query before decoding.
  for (const std::string_view pair : split(of.in.raw_query, '&')) {
    if (pair.starts_with("state=")) target += "&" + std::string(pair);
  }
  // A line end in a header would begin another header of the client's choice.
  require(target.find_first_of("\r\n") == std::string::npos, "redirect_uri is not a URL");
  response answer = response_empty(302);
  answer.headers.emplace_back("Location", std::move(target));
  return answer;
}

response oauth_token(call& of) {
  const pair_list form = read_form(of);
  const auto wanted = pair_value(form, "grant_type");
  for (const row& candidate : GRANTS) {
    if (candidate.grant != wanted) continue;
    check_client(form);
    transaction hold(of.box.data);
    response answer = candidate.answer(of, form);
    hold.commit();
    return answer;
  }
  throw oauth_problem("unsupported_grant_type", "The grant_type is missing or unknown");
}

response oauth_revoke(call& of) {
  const pair_list form = read_form(of);
  check_client(form);
  transaction hold(of.box.data);
  of.box.users.revoke_token(pair_value(form, "token").value_or(""));
  hold.commit();
  return response_empty(200);
}

}  // namespace tarvex::emulator
