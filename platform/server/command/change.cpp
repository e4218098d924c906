#include "command/handlers.h"
#include "command/stat.h"
#include "ftp/path.h"
#include "session/session_state.h"
#include "storage/operation_command.h"

#include <utility>

namespace tarvex::server {

namespace {

void remove_item(session& session, tarvex_gfs_command_type_t type, std::string_view verb, const std::string& argument) {
  const auto path = path_argument(session, argument);
  if (!path) return;
  storage_command command;
  command.type = type;
  command.path = *path;
  auto op = command_make(session, verb, std::move(command));
  op->removes = true;
  command_start(std::move(op), [](operation& over) { session_reply(over.session, 250, over.path + " is deleted."); });
}

}  // namespace

void command_mkd(session& session, const std::string& argument) {
  const auto path = path_argument(session, argument);
  if (!path) return;
  storage_command command;
  command.type = TARVEX_GFS_CMD_MKD;
  command.path = *path;
  auto op = command_make(session, "MKD", std::move(command));
  op->existing_may_be_new = true;
  command_start(std::move(op), [](operation& over) {
    session_reply(over.session, 257, path_quoted(over.text.value_or(over.path)) + " is made.");
  });
}

void command_rmd(session& session, const std::string& argument) {
  remove_item(session, TARVEX_GFS_CMD_RMD, "RMD", argument);
}

void command_dele(session& session, const std::string& argument) {
  remove_item(session, TARVEX_GFS_CMD_DELE, "DELE", argument);
}

/// Answered by the server, with a stat: to a storage a rename is one command.
void command_rnfr(session& session, const std::string& argument) {
  const auto path = path_argument(session, argument);
  if (!path) return;
  stat_start(session, "RNFR", *path, [path = *path](server::session& of, const item_stat&) {
    of.settings.rename_from = path;
    session_reply(of, 350, "Ready for RNTO.");
  });
}

void command_rnto(session& session, const std::string& argument) {
  const std::string from = std::exchange(session.settings.rename_from, {});
  if (from.empty()) return session_reply(session, 503, "Send RNFR first.");
  const auto path = path_argument(session, argument);
  if (!path) return;
  storage_command command;
  command.type = TARVEX_GFS_CMD_RNTO;
  command.path = *path;
  command.from_path = from;
  command_start(command_make(session, "RNTO", std::move(command)), [](operation& over) {
    session_reply(over.session, 250, over.from_path + " is now " + over.path + ".");
  });
}

}  // namespace tarvex::server
