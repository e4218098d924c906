#include "broker/login_judge.h"

#include "base/wall_clock.h"

namespace tarvex::server {

namespace {

using kind = broker_says::kind;

broker_says login_failure(login_result result, int code, const char* text) {
  return {.what = kind::login, .result = result, .code = code, .text = text};
}

}  // namespace

const char* login_closure_text(account_closure why) {
  switch (why) {
    case account_closure::disabled:
      return "This account is disabled.";
    case account_closure::expired:
      return "This account has expired.";
    case account_closure::broken:
      break;
  }
  return "This account is not configured correctly; the server's log says why.";
}

broker_says login_judge(const session_line& line, const account* who, bool known, std::size_t others) {
  if (who == nullptr && !known)
    return login_failure(login_result::unavailable, 421, "The accounts are not available; try again later.");
  if (who == nullptr) return login_failure(login_result::refused, 530, "Login incorrect.");
  if (const auto why = account_closed(*who, wall_clock()))
    return login_failure(login_result::closed, 530, login_closure_text(*why));
  if (!account_admits(*who, line.address))
    return login_failure(login_result::closed, 530, "This account is not served at your address.");
  if (!line.account.empty() && line.account != who->name)
    return login_failure(login_result::closed, 530,
                         "This connection has served another account; open a new one to log in.");
  if (who->max_sessions != 0 && others >= who->max_sessions)
    return login_failure(login_result::closed, 421,
                         "This account has as many sessions as it may have; try again later.");
  return {.what = kind::login,
          .result = login_result::accepted,
          .name = who->name,
          .root = who->root,
          .permissions = who->permissions};
}

}  // namespace tarvex::server
