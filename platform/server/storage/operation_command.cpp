#include "storage/operation_command.h"

#include "base/log.h"
#include "command/stat.h"
#include "session/session_state.h"

#include <memory>
#include <utility>

namespace tarvex::server {

namespace {

const char* text_or_null(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

/// The record lends the command's texts.
tarvex_gfs_command_info_t command_record(storage_command& command) {
  tarvex_gfs_command_info_t record{};
  record.command = command.type;
  record.pathname = text_or_null(command.path);
  record.cksm_offset = command.cksm_offset;
  record.cksm_length = command.cksm_length;
  record.cksm_alg = text_or_null(command.cksm_algorithm);
  record.from_pathname = text_or_null(command.from_path);
  record.chmod_mode = command.mode;
  record.authz_assert = text_or_null(command.assertion);
  record.chgrp_group = text_or_null(command.group);
  record.utime_time = command.time;
  record.op_info = command.text.empty() ? nullptr : command.text.data();
  return record;
}

}  // namespace

std::unique_ptr<operation> command_make(session& session, std::string_view verb, storage_command command) {
  auto op = operation_make(session, operation_kind::command, verb, command.path);
  op->from_path = command.from_path;
  op->changes = true;
  op->work = [command = std::make_shared<storage_command>(std::move(command))](operation& started) {
    tarvex_gfs_command_info_t record = command_record(*command);
    started.session.setup.storage->interface->command_func(&started, &record, started.session.storage.session);
  };
  return op;
}

void command_start(std::unique_ptr<operation> op, command_call made) {
  session& session = op->session;
  if (!session.setup.storage->interface->command_func)
    return session_reply(session, 502, "The storage takes no commands.");
  op->done = [made = std::move(made)](operation& over) {
    if (operation_succeeded(over) && (over.changes || !over.cancelled)) {
      log_info("{}: {} {}: done", session_who(over.session), over.verb, over.path);
      return made(over);
    }
    command_log_failure(over);
    over.session.control.send(operation_failure_reply(over));
  };
  operation_start(session, std::move(op));
}

}  // namespace tarvex::server
