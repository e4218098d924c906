#include "api/token_scope.h"

#include "api/access.h"
#include "api/item_view.h"
#include "api/oauth_form.h"
#include "base/digest.h"
#include "base/text.h"
#include "box/token_rules.h"

#include <algorithm>
#include <utility>

namespace tarvex::emulator {
namespace {

constexpr std::string_view SCOPED_KIND = "scoped_token";
constexpr std::string_view ACCESS_TOKEN_TYPE = "urn:ietf:params:oauth:token-type:access_token";
constexpr std::size_t TOKEN_BYTES = 24;

constexpr std::pair<std::string_view, unsigned> SCOPE_ROWS[] = {
    {"base_explorer", MAY_SEE},
    {"base_picker", MAY_SEE},
    {"base_preview", MAY_SEE},
    {"base_sidebar", MAY_SEE},
    {"item_preview", MAY_SEE},
    {"item_download", MAY_SEE | MAY_DOWNLOAD},
    {"base_upload", MAY_SEE | MAY_UPLOAD},
    {"item_upload", MAY_SEE | MAY_UPLOAD},
    {"item_rename", MAY_SEE | MAY_EDIT},
    {"item_delete", MAY_SEE | MAY_EDIT},
    {"item_share", MAY_SEE | MAY_SHARE | MAY_INVITE},
    {"item_readwrite", MAY_ALL},
    {"root_readonly", MAY_SEE | MAY_DOWNLOAD},
    {"root_readwrite", MAY_ALL},
};

/// Throws `invalid_scope` for one that this Box does not know: it could not keep it.
unsigned rights_of_scopes(const std::string& scopes) {
  unsigned rights = 0;
  for (const std::string_view each : split(scopes, ' ')) {
    const auto* row = std::find_if(std::begin(SCOPE_ROWS), std::end(SCOPE_ROWS),
                                   [&](const auto& candidate) { return candidate.first == each; });
    if (row == std::end(SCOPE_ROWS)) throw oauth_problem("invalid_scope", "Unknown scope " + std::string(each));
    rights |= row->second;
  }
  return rights;
}

/// "https://api.box.com/2.0/folders/123" as a typed id; empty for none. Throws `invalid_resource`.
std::string resource_of(const std::string& address) {
  if (address.empty()) return {};
  const auto pieces = split(address, '/');
  const std::string_view id = pieces.back();
  const std::string_view kind = pieces.size() > 1 ? pieces[pieces.size() - 2] : std::string_view();
  const bool known = (kind == "files" || kind == "folders") && number_of(id);
  if (!known) throw oauth_problem("invalid_resource", "'resource' is the address of a file or a folder");
  return std::string(kind == "files" ? "f_" : "d_").append(id);
}

std::string subject_of_token(std::string_view token) {
  return hex(sha256_of(token));
}

json_ptr restricted_to(const call& of, const token_reach& reach, const std::string& scopes) {
  json_ptr list(json_array());
  const auto object = of.box.items.find_typed(reach.resource);
  for (const std::string_view each : split(scopes, ' ')) {
    json_ptr entry(json_object());
    json_put(entry.get(), "scope", each);
    if (object) json_put(entry.get(), "object", item_view(of).mini(*object));
    json_add(list.get(), std::move(entry));
  }
  return list;
}

/// The reach of the token that is exchanged; a scoped one gives no more than it has.
token_reach subject_reach(const call& of, const std::string& token) {
  if (auto scoped = token_scope_find(of, token)) return std::move(*scoped);
  const auto user = tokens_use(of.box.tokens, token, of.now());
  if (!user) throw oauth_problem("invalid_grant", "Invalid subject token");
  return {*user, MAY_ALL, ""};
}

}  // namespace

response token_exchange(const call& of, const app& /*client*/, const pair_list& form) {
  if (pair_value(form, "subject_token_type").value_or("") != ACCESS_TOKEN_TYPE) {
    throw oauth_problem("invalid_request", "subject_token_type must be " + std::string(ACCESS_TOKEN_TYPE));
  }
  const std::string scopes = pair_value(form, "scope").value_or("");
  token_reach reach = subject_reach(of, pair_value(form, "subject_token").value_or(""));
  reach.rights &= rights_of_scopes(scopes);
  const std::string resource = resource_of(pair_value(form, "resource").value_or(""));
  if (!reach.resource.empty() && !resource.empty() && resource != reach.resource) {
    throw oauth_problem("invalid_resource", "The subject token does not reach this resource");
  }
  if (!resource.empty()) reach.resource = resource;
  const std::string token = random_hex(TOKEN_BYTES);
  const std::int64_t life = std::max<std::int64_t>(0, of.set.access_token_lifetime_s);
  json_ptr value(json_object());
  json_put(value.get(), "rights", static_cast<std::int64_t>(reach.rights));
  json_put(value.get(), "resource", reach.resource);
  json_put(value.get(), "expires_at", of.now() + life);
  (void)of.box.records.create(SCOPED_KIND,
                              {.owner = reach.user, .subject = subject_of_token(token), .value = std::move(value)});
  const json_ptr body(json_object());
  json_put(body.get(), "access_token", token);
  json_put(body.get(), "expires_in", life);
  json_put(body.get(), "restricted_to", restricted_to(of, reach, scopes));
  json_put(body.get(), "token_type", "bearer");
  json_put(body.get(), "issued_token_type", ACCESS_TOKEN_TYPE);
  return response_json(200, body.get());
}

std::optional<token_reach> token_scope_find(const call& of, std::string_view token) {
  const auto found = of.box.records.first(SCOPED_KIND, subject_of_token(token));
  if (!found || json_number_at(found->value.get(), "expires_at").value_or(0) <= of.now()) return std::nullopt;
  const auto rights = json_number_at(found->value.get(), "rights").value_or(0);
  return token_reach{found->owner, static_cast<unsigned>(rights),
                     json_text_at(found->value.get(), "resource").value_or("")};
}

}  // namespace tarvex::emulator
