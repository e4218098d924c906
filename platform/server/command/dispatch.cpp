#include "base/log.h"
#include "command/handlers.h"
#include "command/table.h"
#include "ftp/command_line.h"
#include "session/session_state.h"

namespace tarvex::server {

namespace {

constexpr unsigned BAD_COMMANDS_BEFORE_LOGIN_MAX = 10;

/// Answers a line that cannot be run. Who is not logged in may not go on like this for ever.
void refuse(session& session, int code, std::string_view text) {
  session_reply(session, code, text);
  if (session.login.logged_in || ++session.login.bad_commands < BAD_COMMANDS_BEFORE_LOGIN_MAX) return;
  session_reply(session, 421, "Too many bad commands; closing the control connection.");
  session_end(session, "too many bad commands before login");
}

void run_row(session& session, const command_row& row, const std::string& argument) {
  if (row.access == command_access::logged_in && !session.login.logged_in)
    return refuse(session, 530, "Log in with USER and PASS first.");
  const std::string verb(row.verb);
  if (row.argument == command_argument::none && !argument.empty())
    return refuse(session, 501, verb + " takes no argument.");
  if (row.argument == command_argument::required && argument.empty())
    return refuse(session, 501, verb + " needs an argument: " + std::string(row.help) + ".");
  if (!row.keeps_restart) session.settings.restart_offset = 0;
  row.handler(session, argument);
}

}  // namespace

void command_run(session& session, const control_line& line) {
  if (line.too_long) return refuse(session, 500, "The line is too long.");
  if (line.aborted) return session_reply(session, 226, "Abort successful.");
  const command_line parsed = command_line_parse(line.text);
  if (command_line_is_http(parsed)) {
    session_reply(session, 500, "This is an FTP server.");
    return session_end(session, "HTTP request");
  }
  if (line.text.find_first_of(std::string_view("\0\r", 2)) != std::string::npos)
    return refuse(session, 501, "The line holds a NUL or CR byte.");
  const command_row* row = command_find(parsed.verb);
  if (!row || row->handler != command_rnto) session.settings.rename_from.clear();
  if (!row) return refuse(session, 502, "Command not implemented.");
  run_row(session, *row, parsed.argument);
}

bool command_run_at_once(session& session) {
  const auto& lines = session.control.lines();
  if (lines.empty() || lines.front().too_long || lines.front().aborted) return false;
  const command_line parsed = command_line_parse(lines.front().text);
  const command_row* row = command_find(parsed.verb);
  if (!row || !row->during_operation || !parsed.argument.empty()) return false;
  command_run(session, *session.control.next_line());
  return true;
}

bool command_aborts(std::string_view line) {
  return command_find(command_line_parse(line).verb) == command_find("ABOR");
}

}  // namespace tarvex::server
