#include "base/log.h"
#include "command/handler.h"
#include "session/session.h"

namespace tarvex::server {

namespace {

/// As long as a new connection has.
constexpr std::chrono::seconds LOGIN_TIME{120};

/// What counts against guessing goes on: failed logins, bad commands and, for who has not logged in, the deadline.
void log_out(session& client) {
  login_state& login = client.login;
  if (login.logged_in) login.deadline = std::chrono::steady_clock::now() + LOGIN_TIME;
  login.logged_in = false;
  login.user.clear();
  login.name.clear();
}

}  // namespace

/// RFC 959 section 4.1.1: all is as it was behind the greeting.
handled command_rein(session& client, std::string) {
  client.data.close();
  client.data.set_buffers(0);
  if (client.login.logged_in) {
    log_info("{}: logged out", client.who());
    co_await client.storage.leave();
  }
  log_out(client);
  client.settings = {};
  client.reply(220, "Ready for a new user.");
}

}  // namespace tarvex::server
