#include "api/authorisation.h"

#include "api/token_scope.h"
#include "base/text.h"
#include "box/token_rules.h"

#include <optional>
#include <string>

namespace tarvex::emulator {
namespace {

/// Box takes a token from the header and from `access_token` in the query.
std::optional<std::string> token_of(const request& in) {
  auto header = in.header("Authorization");
  if (header && lower(*header).starts_with("bearer ")) return std::string(trim(std::string_view(*header).substr(7)));
  if (header) return header;  // a bare token; of another scheme, it is equal to none
  return in.parameter("access_token");
}

}  // namespace

user authorised_user(call& of) {
  const auto token = token_of(of.in);
  if (!token || token->empty()) throw unauthorised_problem(false);
  transaction hold(of.box.data);
  const auto scoped = token_scope_find(of, *token);
  if (scoped) of.limit = token_limit{scoped->rights, scoped->resource};
  const auto known = scoped ? std::optional(scoped->user) : tokens_use(of.box.tokens, *token, of.now());
  // Unknown, revoked and expired tokens get the same answer; only no token at all gets another.
  if (!known) throw unauthorised_problem(true);
  const auto owner = of.box.users.find(*known);
  if (!owner) throw unauthorised_problem(true);
  hold.commit();
  return *owner;
}

void authorisation_note(const call& of) {
  const auto token = token_of(of.in);
  if (!token) return;
  transaction hold(of.box.data);
  (void)tokens_use(of.box.tokens, *token, of.now());
  hold.commit();
}

}  // namespace tarvex::emulator
