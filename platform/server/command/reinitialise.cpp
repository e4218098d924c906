#include "base/log.h"
#include "command/handler.h"
#include "limits/account_seats.h"
#include "session/session.h"

namespace tarvex::server {

namespace {

/// What counts against guessing goes on: failed logins, bad commands and, for who has not logged in, the deadline.
void log_out(session& client) {
  login_state& login = client.login;
  if (login.logged_in) {
    log_info("{}: logged out", client.who());
    login.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(client.config.login_timeout_s);
    client.broker.note_logged_out();
    if (client.limits) account_seat_give_back(*client.limits, client.share);
  }
  login.logged_in = false;
  login.user.clear();
  login.name.clear();
}

}  // namespace

/// RFC 959 section 4.1.1: all is as it was behind the greeting. Under TLS that would mean to go on in plain text
/// (RFC 4217), which nobody who sits between is to bring about.
handled command_rein(session& client, std::string) {
  if (client.control.secured()) co_return client.reply(502, "Under TLS a new user needs a new connection.");
  client.data.close();
  client.data.set_buffers(0);
  co_await client.storage.leave();
  log_out(client);
  client.settings = {};
  client.reply(220, "Ready for a new user.");
}

}  // namespace tarvex::server
