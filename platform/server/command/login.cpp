#include "base/log.h"
#include "base/secret.h"
#include "command/handlers.h"
#include "config/accounts_cache.h"
#include "ftp/path.h"
#include "ftp/reply.h"
#include "session/session_state.h"

#include <chrono>
#include <system_error>

namespace tarvex::server {

namespace {

constexpr unsigned FAILURES_MAX = 5;
constexpr std::chrono::seconds FAILURE_DELAY{1};

/// How a login went, from the operation thread to the I/O thread.
struct login_attempt {
  std::string user;
  secret password;
  login_verdict verdict = login_verdict::unavailable;
  std::string storage_error;  ///< the storage cannot be activated
};

/// Operation thread: finds the account, when the password is right.
void authenticate(session& session, login_attempt& attempt) {
  const login_answer answer = session.setup.accounts->authenticate(attempt.user, attempt.password.text());
  attempt.password = secret();
  attempt.verdict = answer.verdict;
  if (answer.who) session.login.who = *answer.who;
}

/// Operation thread: authentication, activation of the storage and its session start.
void log_in(operation& op, login_attempt& attempt) {
  session& session = op.session;
  authenticate(session, attempt);
  if (attempt.verdict != login_verdict::accepted) {
    op.finished = true;
    return;
  }
  storage& storage = *session.setup.storage;
  if (!storage.interface) attempt.storage_error = storage_activate(storage, session.setup.config->storage_dsi);
  if (!attempt.storage_error.empty()) {
    op.finished = true;
    return;
  }
  session.others.open(session.setup.changes, session.login.who.name);
  const std::string peer = session.control.peer().host;
  tarvex_gfs_session_info_t info{attempt.user.c_str(), peer.c_str()};
  storage.interface->init_func(&op, &info);
}

void logged_in(session& session, operation& op, const login_attempt& attempt) {
  session.storage.session = op.storage_session;
  session.storage.started = true;
  session.login.logged_in = true;
  session.login.name = op.username.empty() ? attempt.user : op.username;
  session.settings.directory = path_normalise("/", op.home_directory).value_or("/");
  log_info("{}: logged in", session_who(session));
  session_reply(session, 230, "Logged in.");
}

/// Answers a failed login after a while, so that guessing takes its time. The session stays busy till then.
void login_failed(session& session, std::string reply) {
  session.busy = true;
  session.delay_timer.start(FAILURE_DELAY, [&session, reply = std::move(reply)] {
    session.control.send(reply);
    if (++session.login.failures >= FAILURES_MAX) {
      session_reply(session, 421, "Too many failed logins; closing the control connection.");
      session_end(session, "too many failed logins");
    }
    session_command_over(session);
  });
}

/// The code of every line of a reply that has one.
void reply_recode(std::string& reply, std::string_view code) {
  for (std::size_t line = 0; line + 3 < reply.size();) {
    reply.replace(line, 3, code);
    const std::size_t end = reply.find('\n', line);
    if (end == std::string::npos) break;
    line = end + 1;
  }
}

std::string login_refusal(session& session, const operation& op, const login_attempt& attempt) {
  const char* user = attempt.user.c_str();
  const char* peer = session.control.peer().host.c_str();
  if (attempt.verdict == login_verdict::refused) {
    log_info("login of {} from {} failed: wrong name or password", user, peer);
    return reply_format(530, "Login incorrect.");
  }
  if (!attempt.storage_error.empty()) {
    log_error("login of {} from {} failed: {}", user, peer, attempt.storage_error);
    return reply_format(530, "The storage is not available.");
  }
  log_warning("login of {} from {} failed: {}", user, peer, operation_failure_text(op));
  if (op.misused || op.cancelled) return reply_format(530, operation_failure_text(op));
  std::string reply = reply_from_error(op.result.get(), 530);
  reply_recode(reply, "530");
  return reply;
}

/// Not the client's fault, so no failure of its own: a 530 would make it ask for another password.
void login_unavailable(session& session, const std::string& user) {
  log_warning("login of {} from {} failed: the accounts are not available", user, session.control.peer().host);
  session_reply(session, 421, "The accounts are not available; try again later.");
  session_end(session, "no accounts");
}

bool worker_start(session& session) {
  if (session.worker) return true;
  try {
    session.worker = std::make_unique<operation_thread>(session.cancel);
    return true;
  } catch (const std::system_error& error) {
    log_error("{}: no thread for the storage: {}", session_who(session), error.what());
    session_reply(session, 421, "The server has no resources for another session.");
    session_end(session, "no thread");
    return false;
  }
}

}  // namespace

void command_user(session& session, const std::string& argument) {
  if (session.login.logged_in) return session_reply(session, 503, "Already logged in.");
  if (!session.setup.config->allow_plaintext_login && !session.control.local().loopback) {
    session.login.user.clear();
    return session_reply(session, 530, "Logging in without TLS is not allowed here.");
  }
  session.login.user = argument;
  session_reply(session, 331, "Password required.");
}

void command_pass(session& session, const std::string& argument) {
  if (session.login.logged_in) return session_reply(session, 503, "Already logged in.");
  if (session.login.user.empty()) return session_reply(session, 503, "Send USER first.");
  if (!worker_start(session)) return;
  const auto attempt =
      std::make_shared<login_attempt>(login_attempt{session.login.user, secret(std::string(argument)), {}, {}});
  auto op = std::make_unique<operation>(session, operation_kind::session_start);
  op->verb = "PASS";
  op->work = [attempt](operation& started) { log_in(started, *attempt); };
  op->done = [&session, attempt](operation& over) {
    if (attempt->verdict == login_verdict::unavailable) return login_unavailable(session, attempt->user);
    if (attempt->verdict == login_verdict::accepted && attempt->storage_error.empty() && operation_succeeded(over))
      return logged_in(session, over, *attempt);
    login_failed(session, login_refusal(session, over, *attempt));
  };
  session.login.user.clear();
  operation_start(session, std::move(op));
}

void command_host(session& session, const std::string&) {
  if (session.login.logged_in || !session.login.user.empty())
    return session_reply(session, 503, "HOST has to come before USER.");
  session_reply(session, 220, "Host accepted.");
}

void command_clnt(session& session, const std::string&) {
  session_reply(session, 200, "Noted.");
}

void command_quit(session& session, const std::string&) {
  session_reply(session, 221, "Goodbye.");
  session_end(session, "quit");
}

}  // namespace tarvex::server
