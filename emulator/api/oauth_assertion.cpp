#include "api/oauth_assertion.h"

#include "api/oauth_form.h"
#include "base/text.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t MOST_AHEAD_S = 60;
constexpr std::size_t LEAST_JTI = 16;
constexpr std::size_t MOST_JTI = 128;

struct algorithm {
  std::string_view name;  // the header's `alg` (RFC 7518, 3.1)
  const char* digest;     // OpenSSL's name
};

// No others, and never one that the header chooses freely: "none" and the symmetric ones would let anybody sign.
constexpr algorithm ALGORITHMS[] = {{"RS256", "SHA256"}, {"RS384", "SHA384"}, {"RS512", "SHA512"}};

struct web_token {
  json_ptr header;
  json_ptr claims;
  std::string_view message;  // what was signed
  std::string signature;
};

// Clients look for the claim's name in these texts; "exp" and "jti" make Box's own libraries try once more.
problem claim_problem(std::string_view claim) {
  return oauth_problem("invalid_grant", "Please check the '" + std::string(claim) + "' claim.");
}

void check_claim(bool holds, std::string_view claim) {
  if (!holds) throw claim_problem(claim);
}

web_token parse_token(std::string_view assertion) {
  const auto pieces = split(assertion, '.');
  if (pieces.size() != 3) throw oauth_problem("invalid_grant", "The assertion is no JSON web token");
  web_token parsed{.header = json_parse(base64url_decode(pieces[0]).value_or("")),
                   .claims = json_parse(base64url_decode(pieces[1]).value_or("")),
                   .message = assertion.substr(0, assertion.rfind('.')),
                   .signature = base64url_decode(pieces[2]).value_or("")};
  if (!json_is_object(parsed.header.get()) || !json_is_object(parsed.claims.get())) {
    throw oauth_problem("invalid_grant", "The assertion is no JSON web token");
  }
  return parsed;
}

/// The key that the header names; without a name there must be no choice.
const app_key& key_of(const app& client, const json_t* header) {
  const auto wanted = json_text_at(header, "kid");
  for (const app_key& each : client.keys) {
    if (wanted ? each.id == *wanted : client.keys.size() == 1) return each;
  }
  throw oauth_problem("invalid_grant", "Please check the 'kid' header. It names no public key of the app");
}

/// A Box without apps knows no keys, and takes the signature as it is.
void check_signature(const app& client, const web_token& token) {
  const std::string name = json_text_at(token.header.get(), "alg").value_or("");
  const auto* used = std::find_if(std::begin(ALGORITHMS), std::end(ALGORITHMS),
                                  [&](const algorithm& each) { return each.name == name; });
  if (used == std::end(ALGORITHMS)) {
    throw oauth_problem("invalid_grant", "Please check the 'alg' header. RS256, RS384 and RS512 are taken");
  }
  if (!client.registered) return;
  if (!public_key_has_signed(key_of(client, token.header.get()).key, used->digest, token.message, token.signature)) {
    throw oauth_problem("invalid_grant", "OAuth JWT signature is invalid.");
  }
}

/// One text or an array of them (RFC 7519, 4.1.3). Box's libraries have Box's own address compiled in, others name the
/// one that they reach.
bool is_meant(const call& of, const json_t* audience) {
  const auto fits = [&](const json_t* value) {
    const std::string text = json_is_string(value) ? json_string_value(value) : "";
    return !text.empty() && (text == of.origin({}) + of.in.path || text == of.set.assertion_audience);
  };
  if (!json_is_array(audience)) return fits(audience);
  std::size_t index = 0;
  const json_t* value = nullptr;
  json_array_foreach(audience, index, value) {
    if (fits(value)) return true;
  }
  return false;
}

}  // namespace

assertion_subject assertion_check(const call& of, const app& client, std::string_view assertion) {
  const web_token token = parse_token(assertion);
  check_signature(client, token);
  const json_t* claims = token.claims.get();
  check_claim(json_text_at(claims, "iss") == client.client_id, "iss");
  check_claim(is_meant(of, json_object_get(claims, "aud")), "aud");
  const std::int64_t now = of.now();
  const auto expires_at = json_number_at(claims, "exp");
  check_claim(expires_at && *expires_at > now && *expires_at <= now + MOST_AHEAD_S, "exp");
  assertion_subject subject{json_text_at(claims, "box_sub_type").value_or(""),
                            json_text_at(claims, "sub").value_or("")};
  check_claim(subject.type == "user" || subject.type == "enterprise", "box_sub_type");
  check_claim(!subject.id.empty(), "sub");
  const std::string jti = json_text_at(claims, "jti").value_or("");
  check_claim(jti.size() >= LEAST_JTI && jti.size() <= MOST_JTI &&
                  of.box.single_uses.spend_assertion(client.client_id, jti, *expires_at, now),
              "jti");
  return subject;
}

}  // namespace tarvex::emulator
