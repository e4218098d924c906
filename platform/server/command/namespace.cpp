#include "command/answer.h"
#include "command/handler.h"
#include "command/listing_lines.h"
#include "command/look.h"
#include "ftp/listing.h"
#include "ftp/path.h"
#include "session/session.h"

namespace tarvex::server {

namespace {

handled change_directory(session& client, std::string verb, std::string path) {
  const auto item = co_await look_at(client, std::move(verb), path);
  if (!item) co_return;
  if (!item->folder()) co_return client.reply(550, path + ": not a folder.");
  client.settings.directory = path;
  client.reply(250, "Folder changed to " + path + ".");
}

}  // namespace

handled command_pwd(session& client, std::string) {
  client.reply(257, path_quoted(client.settings.directory) + " is the current folder.");
  co_return;
}

handled command_cwd(session& client, std::string argument) {
  const auto path = path_argument(client, argument);
  if (path) co_await change_directory(client, "CWD", *path);
}

handled command_cdup(session& client, std::string) {
  const auto path = path_argument(client, "..");
  if (path) co_await change_directory(client, "CDUP", *path);
}

handled command_size(session& client, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path) co_return;
  const auto item = co_await look_at_file(client, "SIZE", *path);
  if (item) client.reply(213, std::to_string(item->size()));
}

handled command_mdtm(session& client, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path) co_return;
  const auto item = co_await look_at(client, "MDTM", *path);
  if (item) client.reply(213, listing_timestamp(item->stat.mtime));
}

handled command_mlst(session& client, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path) co_return;
  const auto item = co_await look_at(client, "MLST", *path);
  if (!item) co_return;
  std::string line = listing_line(listing_request_of(client, "MLST", listing_form::mlsd, *path), item->stat, *path);
  line.resize(line.size() - 2);  // its CRLF
  client.reply_block(250, "Listing " + *path, {line}, "End.");
}

}  // namespace tarvex::server
