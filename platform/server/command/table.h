#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tarvex::server {

struct session;
struct control_line;

enum class command_access { anyone, logged_in };
enum class command_argument { none, optional, required };

/// One FTP command.
struct command_row {
  std::string_view verb;
  void (*handler)(session& session, const std::string& argument);
  command_access access;
  command_argument argument;
  bool keeps_restart;     ///< a REST before it stays in force
  bool during_operation;  ///< answered at once while an operation runs, when it has no argument
  std::string_view help;  ///< the argument's form
};

/// All commands, in alphabetical order.
std::span<const command_row> command_rows();

/// The row of a verb, in any case; null: unknown.
const command_row* command_find(std::string_view verb);

/// Runs a line whose turn it is. I/O thread.
void command_run(session& session, const control_line& line);

/// Runs the first line that waits behind a running operation, when it is one that need not wait. \return whether it
/// ran.
bool command_run_at_once(session& session);

/// Whether the line is an ABOR.
bool command_aborts(std::string_view line);

}  // namespace tarvex::server
