#pragma once

#include "command/handler.h"
#include "command/permission_set.h"

#include <span>
#include <string_view>

namespace tarvex::server {

enum class command_access { anyone, logged_in };
enum class command_argument { none, optional, required };

/// One FTP command.
struct command_row {
  std::string_view verb;
  command_handler handler;
  command_access access;
  permission_set permitted;  ///< of those who are logged in
  command_argument argument;
  bool keeps_restart;     ///< a REST before it stays in force
  bool during_operation;  ///< answered at once while an operation runs, when it has no argument
  std::string_view help;  ///< the argument's form
};

/// All commands, in alphabetical order.
std::span<const command_row> command_rows();

/// The row of a verb, in any case; null: unknown.
const command_row* command_find(std::string_view verb);

}  // namespace tarvex::server
