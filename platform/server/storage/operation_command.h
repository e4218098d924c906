#pragma once

#include "storage/operation.h"

#include <ctime>
#include <functional>
#include <string>
#include <string_view>

namespace tarvex::server {

/// A command for the storage: its command record with owned texts. What a command does not use stays empty.
struct storage_command {
  tarvex_gfs_command_type_t type = {};
  std::string path;       ///< absolute, normal
  std::string from_path;  ///< absolute, normal
  tarvex_off_t cksm_offset = 0;
  tarvex_off_t cksm_length = -1;
  std::string cksm_algorithm;
  int mode = 0;
  std::string assertion;
  std::string group;
  std::time_t time = 0;
  std::string text;  ///< what a SITE word came with that no other member takes
};

/// Called when a command was carried out; `op.text` is what the storage has to say. The client is to be answered.
using command_call = std::function<void(operation& op)>;

/// Makes an operation of a command that changes something. `existing_may_be_new` and the like are the caller's to set.
std::unique_ptr<operation> command_make(session& session, std::string_view verb, storage_command command);

/// Runs it; answers the client itself when the storage refuses it, takes no commands, or was cancelled. A change that
/// was made before it could be cancelled counts as made.
void command_start(std::unique_ptr<operation> op, command_call made);

}  // namespace tarvex::server
