#include "box/token_rules.h"

#include <algorithm>

namespace tarvex::emulator {
namespace {

constexpr std::int64_t CODE_LIFE_S = 30;

/// `seconds` after now, for settings of any size: beyond a thousand years it makes no difference.
std::int64_t after(std::int64_t now, std::int64_t seconds) {
  constexpr std::int64_t MOST_S = 1000L * 366 * 86400;
  return now + std::clamp<std::int64_t>(seconds, 0, MOST_S);
}

token_pair new_pair(const token_order& order, std::int64_t user, bool with_refresh) {
  return {.client = std::string(order.client),
          .user = user,
          .access_expires_at = after(order.now, order.set.access_token_lifetime_s),
          .refresh_expires_at = with_refresh ? after(order.now, order.set.refresh_token_lifetime_s) : 0};
}

}  // namespace

token_pair tokens_begin(token_store& tokens, const token_order& order, std::int64_t user, bool with_refresh) {
  return tokens.create(new_pair(order, user, with_refresh));
}

renewal tokens_renew(token_store& tokens, const token_order& order, std::string_view refresh_token) {
  constexpr std::string_view INVALID = "Invalid refresh token";
  constexpr std::string_view EXPIRED = "Refresh token has expired";
  const auto old = tokens.find_by_refresh(refresh_token);
  if (!old || old->client != order.client || old->state == pair_state::REVOKED) return {.refusal = INVALID};
  if (old->state == pair_state::REPLACED || old->refresh_expires_at <= order.now) return {.refusal = EXPIRED};
  if (old->successor != 0) {
    if (order.set.refresh == "strict") return {.refusal = EXPIRED};
    return {.pair = tokens.find(old->successor)};
  }
  token_pair wanted = new_pair(order, old->user, true);
  wanted.sign_in = old->sign_in;
  const token_pair made = tokens.create(wanted);
  tokens.set_successor(*old, made);
  return {.pair = made};
}

std::optional<std::int64_t> tokens_use(token_store& tokens, std::string_view access_token, std::int64_t now) {
  if (const auto user = tokens.find_fixed(access_token)) return user;
  const auto pair = tokens.find_by_access(access_token);
  if (!pair || pair->state != pair_state::LIVE || pair->access_expires_at <= now) return std::nullopt;
  if (!pair->used) {
    tokens.set_used(*pair);
    tokens.end_earlier(*pair);
  }
  return pair->user;
}

bool tokens_revoke(token_store& tokens, std::string_view client, std::string_view token) {
  tokens.remove_fixed(token);
  auto pair = tokens.find_by_access(token);
  if (!pair) pair = tokens.find_by_refresh(token);
  if (!pair) return true;
  if (pair->client != client) return false;
  // What has been replaced is nobody's any more, and ends nothing that lives.
  if (pair->state == pair_state::LIVE) tokens.revoke_sign_in(pair->sign_in);
  return true;
}

std::int64_t code_end(std::int64_t now) {
  return after(now, CODE_LIFE_S);
}

}  // namespace tarvex::emulator
