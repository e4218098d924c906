#include "command/handlers.h"
#include "command/stat.h"
#include "ftp/listing.h"
#include "ftp/path.h"
#include "session/session_state.h"

#include <algorithm>

namespace tarvex::server {

namespace {

void change_directory(session& session, std::string_view verb, const std::string& path) {
  stat_start(session, verb, path, [path](server::session& of, const item_stat& item) {
    if (!item.folder()) return session_reply(of, 550, path + ": not a folder.");
    of.settings.directory = path;
    session_reply(of, 250, "Folder changed to " + path + ".");
  });
}

}  // namespace

void command_pwd(session& session, const std::string&) {
  session_reply(session, 257, path_quoted(session.settings.directory) + " is the current folder.");
}

void command_cwd(session& session, const std::string& argument) {
  if (const auto path = path_argument(session, argument)) change_directory(session, "CWD", *path);
}

void command_cdup(session& session, const std::string&) {
  if (const auto path = path_argument(session, "..")) change_directory(session, "CDUP", *path);
}

void command_size(session& session, const std::string& argument) {
  const auto path = path_argument(session, argument);
  if (!path) return;
  file_stat_start(session, "SIZE", *path, [](server::session& of, const item_stat& item) {
    session_reply(of, 213, std::to_string(std::max<tarvex_off_t>(item.stat.size, 0)));
  });
}

void command_mdtm(session& session, const std::string& argument) {
  const auto path = path_argument(session, argument);
  if (!path) return;
  stat_start(session, "MDTM", *path, [](server::session& of, const item_stat& item) {
    session_reply(of, 213, listing_timestamp(item.stat.mtime));
  });
}

void command_mlst(session& session, const std::string& argument) {
  const auto path = path_argument(session, argument);
  if (!path) return;
  stat_start(session, "MLST", *path, [path = *path](server::session& of, const item_stat& item) {
    std::string line;
    listing_append(listing_form::mlsd, item.stat, path, std::time(nullptr), of.settings.mlst_facts, line);
    line.resize(line.size() - 2);  // its CRLF
    session_reply_block(of, 250, "Listing " + path, {line}, "End.");
  });
}

}  // namespace tarvex::server
