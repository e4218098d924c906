#include "base/log.h"
#include "base/number.h"
#include "base/text.h"
#include "command/answer.h"
#include "command/handler.h"
#include "command/permission_set.h"
#include "ftp/listing.h"
#include "ftp/path.h"
#include "session/session.h"

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace {

struct site_row;
/// The row is one of the table, which lasts.
using site_handler = handled (*)(session& client, const site_row& row, std::string argument);

/// One word of SITE.
struct site_row {
  std::string_view word;
  site_handler handler;
  tarvex_gfs_command_type_t type;
  permission_set permitted;
  std::string_view help;  ///< the argument's form
};

/// What is left to do where all is answered.
handled nothing_more() {
  co_return;
}

handled refuse_form(session& client, const site_row& row) {
  client.reply(501, "SITE " + std::string(row.word) + " takes: " + std::string(row.help) + ".");
  co_return;
}

handled ask_storage(session& client, const site_row& row, storage_command command) {
  const std::string verb = "SITE " + std::string(row.word);
  const std::string path = command.path;
  if (row.type == TARVEX_GFS_CMD_SITE_RDEL && root_refused(client, path)) co_return;
  if (!client.storage.takes_commands()) co_return client.reply(502, "The storage takes no commands.");
  command.type = row.type;
  operation_subject subject{
      .verb = verb, .path = path, .changes = true, .removes = row.type == TARVEX_GFS_CMD_SITE_RDEL};
  const command_answer answer = co_await client.storage.command(std::move(subject), std::move(command));
  if (answer_change(client, verb, path, answer.how)) client.reply(250, answer.text.value_or(verb + " is done."));
}

handled ask_about_path(session& client, const site_row& row, std::string path, storage_command command) {
  if (path.empty()) return refuse_form(client, row);
  const auto normal = path_argument(client, path);
  if (!normal) return nothing_more();
  command.path = *normal;
  return ask_storage(client, row, std::move(command));
}

handled site_path(session& client, const site_row& row, std::string argument) {
  return ask_about_path(client, row, std::move(argument), {});
}

handled site_mode(session& client, const site_row& row, std::string argument) {
  constexpr int MODE_MAX = 07777;
  constexpr int OCTAL = 8;
  std::string_view rest = argument;
  const auto mode = parse_number<int>(take_word(rest), OCTAL);
  if (!mode || *mode < 0 || *mode > MODE_MAX) return refuse_form(client, row);
  return ask_about_path(client, row, std::string(rest), {.mode = *mode});
}

handled site_group(session& client, const site_row& row, std::string argument) {
  std::string_view rest = argument;
  storage_command command{.group = std::string(take_word(rest))};
  if (command.group.empty()) return refuse_form(client, row);
  return ask_about_path(client, row, std::string(rest), std::move(command));
}

handled site_time(session& client, const site_row& row, std::string argument) {
  std::string_view rest = argument;
  const auto time = listing_timestamp_parse(take_word(rest));
  if (!time) return refuse_form(client, row);
  return ask_about_path(client, row, std::string(rest), {.time = *time});
}

handled site_link(session& client, const site_row& row, std::string argument) {
  std::string_view rest = argument;
  const auto from = path_take(rest);
  const auto to = rest.starts_with('"') ? path_take(rest) : std::optional<std::string>(rest);
  if (!from || !to || to->empty()) return refuse_form(client, row);
  const auto normal = path_argument(client, *from);
  if (!normal) return nothing_more();
  return ask_about_path(client, row, *to, {.from_path = *normal});
}

handled site_text(session& client, const site_row& row, std::string argument) {
  if (argument.empty()) return refuse_form(client, row);
  storage_command command;
  (row.type == TARVEX_GFS_CMD_SITE_AUTHZ_ASSERT ? command.assertion : command.text) = std::move(argument);
  return ask_storage(client, row, std::move(command));
}

/// What a client tells about itself and its work is for the log only.
handled site_noted(session& client, const site_row& row, std::string argument) {
  if (argument.empty()) return refuse_form(client, row);
  log_info("{}: {}: {}", client.who(), row.word, argument);
  client.reply(250, "Noted.");
  return nothing_more();
}

handled site_store_attributes(session& client, const site_row&, std::string argument) {
  return command_storattr(client, std::move(argument));
}

handled site_buffer_size(session& client, const site_row& row, std::string argument) {
  if (argument.empty()) return refuse_form(client, row);
  return command_sbuf(client, std::move(argument));
}

handled site_help(session& client, const site_row& row, std::string argument);

//   word, handler, type, permissions, help
constexpr auto SITE_ROWS = std::to_array<site_row>({
    {"AUTHZ_ASSERT", site_text, TARVEX_GFS_CMD_SITE_AUTHZ_ASSERT, FULL_ONLY, "assertion"},
    {"BUFSIZE", site_buffer_size, {}, EVERYBODY, "bytes"},
    {"CHGRP", site_group, TARVEX_GFS_CMD_SITE_CHGRP, FULL_ONLY, "group path"},
    {"CHMOD", site_mode, TARVEX_GFS_CMD_SITE_CHMOD, FULL_ONLY, "octal-mode path"},
    {"CHROOT", site_path, TARVEX_GFS_CMD_SITE_CHROOT, READERS, "path"},
    {"CLIENTINFO", site_noted, TARVEX_GFS_CMD_SITE_CLIENTINFO, EVERYBODY, "text"},
    {"DSI", site_text, TARVEX_GFS_CMD_SITE_DSI, EVERYBODY, "name"},
    {"HELP", site_help, {}, EVERYBODY, "[word]"},
    {"RDEL", site_path, TARVEX_GFS_CMD_SITE_RDEL, FULL_ONLY, "path of a folder"},
    {"RESTRICT", site_text, TARVEX_GFS_CMD_SITE_RESTRICT, READERS, "text"},
    {"SETDISKSTACK", site_text, TARVEX_GFS_CMD_SITE_SETDISKSTACK, EVERYBODY, "text"},
    {"SETNETSTACK", site_text, TARVEX_GFS_CMD_SITE_SETNETSTACK, EVERYBODY, "text"},
    {"SHARING", site_text, TARVEX_GFS_CMD_SITE_SHARING, FULL_ONLY, "text"},
    {"STORATTR", site_store_attributes, {}, UPLOADERS, "modify=YYYYMMDDHHMMSS;"},
    {"SYMLINK", site_link, TARVEX_GFS_CMD_SITE_SYMLINK, FULL_ONLY,
     "path path-of-the-link (either between double quotes)"},
    {"SYMLINKFROM", site_path, TARVEX_GFS_CMD_SITE_SYMLINKFROM, FULL_ONLY, "path"},
    {"TASKID", site_noted, TARVEX_GFS_CMD_SITE_TASKID, EVERYBODY, "text"},
    {"UTIME", site_time, TARVEX_GFS_CMD_SITE_UTIME, FULL_ONLY, "YYYYMMDDhhmmss path"},
});

const site_row* site_find(std::string_view word) {
  const auto row = std::find_if(SITE_ROWS.begin(), SITE_ROWS.end(),
                                [&](const site_row& candidate) { return same_word(candidate.word, word); });
  return row == SITE_ROWS.end() ? nullptr : &*row;
}

void refuse_unknown(session& client, std::string_view word) {
  client.reply(504, "SITE " + std::string(word) + " is unknown; SITE HELP lists what is known.");
}

handled site_help(session& client, const site_row&, std::string argument) {
  const auto syntax = [](const site_row& row) { return std::string(row.word) + " " + std::string(row.help); };
  if (!argument.empty()) {
    const site_row* const row = site_find(argument);
    if (!row) co_return refuse_unknown(client, argument);
    co_return client.reply(214, "Syntax: SITE " + syntax(*row));
  }
  std::vector<std::string> lines;
  for (const site_row& row : SITE_ROWS) lines.push_back(syntax(row));
  client.reply_block(214, "SITE commands (the storage may refuse some):", lines, "End.");
}

}  // namespace

handled command_site(session& client, std::string argument) {
  std::string_view rest = argument;
  const std::string_view word = take_word(rest);
  const site_row* const row = site_find(word);
  if (!row) co_return refuse_unknown(client, word);
  if (!row->permitted.holds(client.login.permissions))
    co_return answer_denied(client, "SITE " + std::string(row->word), rest);
  co_await row->handler(client, *row, std::string(rest));
}

}  // namespace tarvex::server
