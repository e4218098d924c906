#include "base/log.h"
#include "base/number.h"
#include "base/text.h"
#include "command/handlers.h"
#include "command/stat.h"
#include "ftp/listing.h"
#include "ftp/path.h"
#include "session/session_state.h"
#include "storage/operation_command.h"

#include <algorithm>
#include <array>

namespace tarvex::server {

namespace {

/// One word of SITE.
struct site_row {
  std::string_view word;
  void (*handler)(session& session, const site_row& row, std::string_view argument);
  tarvex_gfs_command_type_t type;
  std::string_view help;  ///< the argument's form
};

void refuse_form(session& session, const site_row& row) {
  session_reply(session, 501, "SITE " + std::string(row.word) + " takes: " + std::string(row.help) + ".");
}

void site_start(session& session, const site_row& row, storage_command command) {
  command.type = row.type;
  auto op = command_make(session, "SITE " + std::string(row.word), std::move(command));
  op->removes = row.type == TARVEX_GFS_CMD_SITE_RDEL;
  command_start(std::move(op),
                [](operation& over) { session_reply(over.session, 250, over.text.value_or(over.verb + " is done.")); });
}

void start_on_path(session& session, const site_row& row, std::string_view path, storage_command command) {
  if (path.empty()) return refuse_form(session, row);
  const auto normal = path_argument(session, path);
  if (!normal) return;
  command.path = *normal;
  site_start(session, row, std::move(command));
}

void site_path(session& session, const site_row& row, std::string_view argument) {
  start_on_path(session, row, argument, {});
}

void site_mode(session& session, const site_row& row, std::string_view argument) {
  constexpr int MODE_MAX = 07777;
  constexpr int OCTAL = 8;
  const auto mode = parse_number<int>(take_word(argument), OCTAL);
  if (!mode || *mode < 0 || *mode > MODE_MAX) return refuse_form(session, row);
  storage_command command;
  command.mode = *mode;
  start_on_path(session, row, argument, std::move(command));
}

void site_group(session& session, const site_row& row, std::string_view argument) {
  storage_command command;
  command.group = take_word(argument);
  if (command.group.empty()) return refuse_form(session, row);
  start_on_path(session, row, argument, std::move(command));
}

void site_time(session& session, const site_row& row, std::string_view argument) {
  const auto time = listing_timestamp_parse(take_word(argument));
  if (!time) return refuse_form(session, row);
  storage_command command;
  command.time = *time;
  start_on_path(session, row, argument, std::move(command));
}

void site_link(session& session, const site_row& row, std::string_view argument) {
  const auto from = path_take(argument);
  const auto to = argument.starts_with('"') ? path_take(argument) : std::optional<std::string>(argument);
  if (!from || !to || to->empty()) return refuse_form(session, row);
  const auto normal = path_argument(session, *from);
  if (!normal) return;
  storage_command command;
  command.from_path = *normal;
  start_on_path(session, row, *to, std::move(command));
}

void site_text(session& session, const site_row& row, std::string_view argument) {
  if (argument.empty()) return refuse_form(session, row);
  storage_command command;
  (row.type == TARVEX_GFS_CMD_SITE_AUTHZ_ASSERT ? command.assertion : command.text) = argument;
  site_start(session, row, std::move(command));
}

/// What a client tells about itself and its work is for the log only.
void site_noted(session& session, const site_row& row, std::string_view argument) {
  if (argument.empty()) return refuse_form(session, row);
  log_info("{}: {}: {}", session_who(session), std::string(row.word), std::string(argument));
  session_reply(session, 250, "Noted.");
}

void site_store_attributes(session& session, const site_row&, std::string_view argument) {
  command_storattr(session, std::string(argument));
}

void site_help(session& session, const site_row& row, std::string_view argument);

//   word, handler, type, help
constexpr auto ROWS = std::to_array<site_row>({
    {"AUTHZ_ASSERT", site_text, TARVEX_GFS_CMD_SITE_AUTHZ_ASSERT, "assertion"},
    {"CHGRP", site_group, TARVEX_GFS_CMD_SITE_CHGRP, "group path"},
    {"CHMOD", site_mode, TARVEX_GFS_CMD_SITE_CHMOD, "octal-mode path"},
    {"CHROOT", site_path, TARVEX_GFS_CMD_SITE_CHROOT, "path"},
    {"CLIENTINFO", site_noted, TARVEX_GFS_CMD_SITE_CLIENTINFO, "text"},
    {"DSI", site_text, TARVEX_GFS_CMD_SITE_DSI, "name"},
    {"HELP", site_help, {}, "[word]"},
    {"RDEL", site_path, TARVEX_GFS_CMD_SITE_RDEL, "path of a folder"},
    {"RESTRICT", site_text, TARVEX_GFS_CMD_SITE_RESTRICT, "text"},
    {"SETDISKSTACK", site_text, TARVEX_GFS_CMD_SITE_SETDISKSTACK, "text"},
    {"SETNETSTACK", site_text, TARVEX_GFS_CMD_SITE_SETNETSTACK, "text"},
    {"SHARING", site_text, TARVEX_GFS_CMD_SITE_SHARING, "text"},
    {"STORATTR", site_store_attributes, {}, "modify=YYYYMMDDHHMMSS;"},
    {"SYMLINK", site_link, TARVEX_GFS_CMD_SITE_SYMLINK, "path path-of-the-link (either between double quotes)"},
    {"SYMLINKFROM", site_path, TARVEX_GFS_CMD_SITE_SYMLINKFROM, "path"},
    {"TASKID", site_noted, TARVEX_GFS_CMD_SITE_TASKID, "text"},
    {"UTIME", site_time, TARVEX_GFS_CMD_SITE_UTIME, "YYYYMMDDhhmmss path"},
});

const site_row* site_find(std::string_view word) {
  const auto row = std::find_if(ROWS.begin(), ROWS.end(),
                                [&](const site_row& candidate) { return same_word(candidate.word, word); });
  return row == ROWS.end() ? nullptr : &*row;
}

void refuse_unknown(session& session, std::string_view word) {
  session_reply(session, 504, "SITE " + std::string(word) + " is unknown; SITE HELP lists what is known.");
}

void site_help(session& session, const site_row&, std::string_view argument) {
  const auto syntax = [](const site_row& row) { return std::string(row.word) + " " + std::string(row.help); };
  if (!argument.empty()) {
    const site_row* const row = site_find(argument);
    if (!row) return refuse_unknown(session, argument);
    return session_reply(session, 214, "Syntax: SITE " + syntax(*row));
  }
  std::vector<std::string> lines;
  for (const site_row& row : ROWS) lines.push_back(syntax(row));
  session_reply_block(session, 214, "SITE commands (the storage may refuse some):", lines, "End.");
}

}  // namespace

void command_site(session& session, const std::string& argument) {
  std::string_view rest = argument;
  const std::string_view word = take_word(rest);
  const site_row* const row = site_find(word);
  if (!row) return refuse_unknown(session, word);
  row->handler(session, *row, rest);
}

}  // namespace tarvex::server
