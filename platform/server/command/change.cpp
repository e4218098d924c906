#include "command/answer.h"
#include "command/handler.h"
#include "command/look.h"
#include "ftp/path.h"
#include "session/session.h"

#include <utility>

namespace tarvex::server {

namespace {

handled remove_item(session& client, tarvex_gfs_command_type_t type, std::string verb, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path || root_refused(client, *path)) co_return;
  if (!client.storage.takes_commands()) co_return client.reply(502, "The storage takes no commands.");
  operation_subject subject{.verb = verb, .path = *path, .changes = true, .removes = true};
  storage_command command{.type = type, .path = *path};
  const command_answer answer = co_await client.storage.command(std::move(subject), std::move(command));
  if (answer_change(client, verb, *path, answer.how)) client.reply(250, *path + " is deleted.");
}

}  // namespace

handled command_mkd(session& client, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path || root_refused(client, *path)) co_return;
  if (!client.storage.takes_commands()) co_return client.reply(502, "The storage takes no commands.");
  operation_subject subject{.verb = "MKD", .path = *path, .changes = true, .adds = true, .existing_may_be_new = true};
  storage_command command{.type = TARVEX_GFS_CMD_MKD, .path = *path};
  const command_answer answer = co_await client.storage.command(std::move(subject), std::move(command));
  if (answer_change(client, "MKD", *path, answer.how))
    client.reply(257, path_quoted(answer.text.value_or(*path)) + " is made.");
}

handled command_rmd(session& client, std::string argument) {
  return remove_item(client, TARVEX_GFS_CMD_RMD, "RMD", std::move(argument));
}

handled command_dele(session& client, std::string argument) {
  return remove_item(client, TARVEX_GFS_CMD_DELE, "DELE", std::move(argument));
}

/// Answered by the server, with a stat: to a storage a rename is one command.
handled command_rnfr(session& client, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path || root_refused(client, *path)) co_return;
  const auto item = co_await look_at(client, "RNFR", *path);
  if (!item) co_return;
  client.settings.rename_from = *path;
  client.reply(350, "Ready for RNTO.");
}

handled command_rnto(session& client, std::string argument) {
  const std::string from = std::exchange(client.settings.rename_from, {});
  if (from.empty()) co_return client.reply(503, "Send RNFR first.");
  const auto path = path_argument(client, argument);
  if (!path || root_refused(client, *path)) co_return;
  if (!client.storage.takes_commands()) co_return client.reply(502, "The storage takes no commands.");
  operation_subject subject{.verb = "RNTO", .path = *path, .from_path = from, .changes = true, .adds = true};
  storage_command command{.type = TARVEX_GFS_CMD_RNTO, .path = *path, .from_path = from};
  const command_answer answer = co_await client.storage.command(std::move(subject), std::move(command));
  if (answer_change(client, "RNTO", *path, answer.how)) client.reply(250, from + " is now " + *path + ".");
}

}  // namespace tarvex::server
