#include "command/dispatch.h"

#include "command/answer.h"
#include "command/table.h"
#include "ftp/command_line.h"
#include "session/session.h"

namespace tarvex::server {

namespace asio = boost::asio;

namespace {

constexpr unsigned BAD_COMMANDS_BEFORE_LOGIN_MAX = 10;

/// Answers a line that cannot be run. Who is not logged in may not go on like this for ever.
void refuse(session& client, int code, std::string_view text) {
  client.reply(code, text);
  if (client.login.logged_in || ++client.login.bad_commands < BAD_COMMANDS_BEFORE_LOGIN_MAX) return;
  client.reply(421, "Too many bad commands; closing the control connection.");
  client.end("too many bad commands before login");
}

asio::awaitable<void> run_row(session& client, const command_row& row, std::string argument) {
  const std::string verb(row.verb);
  if (row.access == command_access::logged_in && !client.login.logged_in)
    co_return refuse(client, 530, "Log in with USER and PASS first.");
  if (client.login.logged_in && !row.permitted.holds(client.login.permissions)) {
    client.settings.held.clear();  // it was meant for this command
    co_return answer_denied(client, verb, argument);
  }
  if (row.argument == command_argument::none && !argument.empty())
    co_return refuse(client, 501, verb + " takes no argument.");
  if (row.argument == command_argument::required && argument.empty())
    co_return refuse(client, 501, verb + " needs an argument: " + std::string(row.help) + ".");
  if (!row.keeps_restart) client.settings.held.clear();
  co_await row.handler(client, std::move(argument));
}

/// What is answered without a look at the verb. \return whether the line was dealt with.
bool refused_as_line(session& client, const control_line& line) {
  if (line.overrun) {
    client.reply(421, "Too many commands wait; closing the control connection.");
    client.end("too many commands at once");
  } else if (line.too_long) {
    refuse(client, 500, "The line is too long.");
  } else if (line.aborted) {
    client.reply(226, "Abort successful.");
  } else if (command_line_is_http(command_line_parse(line.text))) {
    // A browser's page that posts to this port must not get commands through.
    client.reply(500, "This is an FTP server.");
    client.end("HTTP request");
  } else if (line.text.find_first_of(std::string_view("\0\r", 2)) != std::string::npos) {
    refuse(client, 501, "The line holds a NUL or CR byte.");
  } else {
    return false;
  }
  return true;
}

}  // namespace

asio::awaitable<void> command_run(session& client, control_line line) {
  if (refused_as_line(client, line)) co_return;
  command_line parsed = command_line_parse(line.text);
  const command_row* const row = command_find(parsed.verb);
  if (!row || row->handler != command_rnto) client.settings.rename_from.clear();
  if (!row) co_return refuse(client, 502, "Command not implemented.");
  co_await run_row(client, *row, std::move(parsed.argument));
}

bool command_need_not_wait(const control_line& line) {
  if (line.too_long || line.aborted || line.overrun) return false;
  const command_line parsed = command_line_parse(line.text);
  const command_row* const row = command_find(parsed.verb);
  return row && row->during_operation && parsed.argument.empty();
}

}  // namespace tarvex::server
