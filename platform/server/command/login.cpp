#include "base/log.h"
#include "command/handler.h"
#include "ftp/path.h"
#include "limits/account_seats.h"
#include "limits/address_group.h"
#include "limits/wrong_passwords.h"
#include "session/session.h"

#include <chrono>

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

constexpr unsigned FAILURES_MAX = 5;
constexpr std::chrono::seconds FAILURE_DELAY{1};

password_rules guessing_rules(const configuration& config) {
  return {config.wrong_passwords, std::chrono::seconds(config.wrong_passwords_window_s)};
}

/// Whether the client's address has used its wrong passwords up, over all of its connections.
bool guesses_used_up(const session& client) {
  return client.limits && wrong_passwords_used_up(*client.limits, address_group(client.control.peer().address),
                                                  guessing_rules(client.config), std::chrono::steady_clock::now());
}

void send_away(session& client, std::string_view reply, std::string_view reason) {
  log_warning("{}: sent away: {}", client.who(), reason);
  client.reply(421, reply);
  client.end(reason);
}

/// Counts a wrong password. One that cannot be counted is the last of its connection.
void count_wrong_password(session& client) {
  if (!client.limits) return;
  const bool counted = wrong_password_count(*client.limits, address_group(client.control.peer().address),
                                            guessing_rules(client.config), std::chrono::steady_clock::now());
  if (!counted) client.login.failures = FAILURES_MAX;
}

/// Counts the session for the account; sends the client away itself when that cannot be.
bool take_seat(session& client, std::string_view account) {
  if (!client.limits) return true;
  const unsigned limit = client.config.sessions_per_account;
  const seat_answer answer = account_seat_take(*client.limits, client.share, account, limit);
  if (answer == seat_answer::taken || (answer == seat_answer::uncounted && limit == 0)) return true;
  if (answer == seat_answer::uncounted) {
    send_away(client, "The sessions of this account cannot be counted; try again later.", "too many accounts");
  } else {
    send_away(client, "This account has as many sessions as it may have; try again later.", "sessions_per_account");
  }
  return false;
}

/// Answers a failed login after a while, so that guessing takes its time.
/// \param reason  for the log, where the session ends
asio::awaitable<void> login_failed(session& client, outcome how, std::string reason) {
  co_await client.pause(FAILURE_DELAY);
  client.reply(how.code, how.lines);
  if (how.code == 421) co_return client.end(reason);
  if (++client.login.failures < FAILURES_MAX && !guesses_used_up(client)) co_return;
  client.reply(421, "Too many failed logins; closing the control connection.");
  client.end("too many failed logins");
}

/// \param code  of the reply: 230, or 232 where TLS has shown who it is (RFC 2228 section 5.1)
void logged_in(session& client, const std::string& user, int code) {
  client.login.logged_in = true;
  client.login.name = client.storage.username().empty() ? user : client.storage.username();
  client.settings.directory = path_normalise("/", client.storage.home_directory()).value_or("/");
  log_info("{}: logged in", client.who());
  client.reply(code, "Logged in.");
}

/// Begins to serve somebody who has shown to be who it says.
asio::awaitable<void> log_in(session& client, std::string user, storage_user served, int code) {
  if (!take_seat(client, served.name)) co_return;
  outcome how = co_await client.storage.start(std::move(served));
  if (how.ok()) co_return logged_in(client, user, code);
  log_warning("login of {} from {} failed: {}", user, client.control.peer().host(), how.text());
  if (client.limits) account_seat_give_back(*client.limits, client.share);
  co_await login_failed(client, std::move(how), "the storage did not start");
}

/// Nobody who has no thread is served.
bool storage_opened(session& client) {
  if (client.storage.open()) return true;
  client.reply(421, "The server has no resources for another session.");
  client.end("no thread");
  return false;
}

/// Takes over what the account says of its sessions.
storage_user served_user(session& client, const broker_says& answer) {
  client.login.permissions = answer.permissions;
  return {.name = answer.name, .peer = client.control.peer().host(), .root = answer.root};
}

/// \return whether the certificate is one of the user's, and the login is answered.
asio::awaitable<bool> certificate_suffices(session& client, std::string user) {
  const certificate_names shown = client.control.peer_certificate();
  if (shown.empty()) co_return false;
  if (!storage_opened(client)) co_return true;
  session_says who{.name = user, .certificates = shown};
  const broker_says answer = co_await client.broker.log_in(std::move(who));
  if (answer.result != login_result::accepted) co_return false;
  storage_user served = served_user(client, answer);
  co_await log_in(client, std::move(user), std::move(served), 232);
  co_return true;
}

}  // namespace

handled command_user(session& client, std::string argument) {
  if (client.login.logged_in) co_return client.reply(503, "Already logged in.");
  client.login.user.clear();
  if (!client.control.secured() && !client.config.allow_plaintext_login && !client.control.local().loopback())
    co_return client.reply(530, client.tls ? "Logging in without TLS is not allowed here; send AUTH TLS first."
                                           : "Logging in without TLS is not allowed here.");
  std::string user = argument;
  const bool answered = co_await certificate_suffices(client, std::move(user));
  if (answered) co_return;
  client.login.user = std::move(argument);
  client.reply(331, "Password required.");
}

handled command_pass(session& client, std::string password) {
  if (client.login.logged_in) co_return client.reply(503, "Already logged in.");
  if (client.login.user.empty()) co_return client.reply(503, "Send USER first.");
  if (!storage_opened(client)) co_return;
  if (guesses_used_up(client))
    co_return send_away(client, "Too many wrong passwords came from your address; try again later.", "wrong_passwords");
  std::string user = std::exchange(client.login.user, {});
  const std::string peer = client.control.peer().host();
  session_says who{.name = user, .password = secret(std::move(password))};
  const broker_says answer = co_await client.broker.log_in(std::move(who));
  if (answer.result != login_result::accepted) {
    const bool refused = answer.result == login_result::refused;
    log_info("login of {} from {} failed: {}", user, peer, refused ? "wrong name or password" : answer.text);
    if (refused) count_wrong_password(client);
    outcome how = outcome_failure(answer.code, answer.text);
    co_return co_await login_failed(client, std::move(how), "the account cannot be served now");
  }
  storage_user served = served_user(client, answer);
  co_await log_in(client, std::move(user), std::move(served), 230);
}

handled command_host(session& client, std::string) {
  if (client.login.logged_in || !client.login.user.empty())
    co_return client.reply(503, "HOST has to come before USER.");
  client.reply(220, "Host accepted.");
}

handled command_clnt(session& client, std::string) {
  client.reply(200, "Noted.");
  co_return;
}

handled command_quit(session& client, std::string) {
  client.reply(221, "Goodbye.");
  client.end("quit");
  co_return;
}

}  // namespace tarvex::server
