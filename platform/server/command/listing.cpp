#include "command/answer.h"
#include "command/handler.h"
#include "command/listing_lines.h"
#include "command/look.h"
#include "ftp/path.h"
#include "session/session.h"
#include "storage/transfer.h"

namespace tarvex::server {

namespace {

handled send_listing(session& client, std::string verb, listing_form form, std::string argument) {
  const auto path = path_argument(client, argument);
  if (!path || !transfer_possible(client)) co_return;
  const listing_request request = listing_request_of(client, verb, form, *path);
  const auto item = co_await look_at(client, verb, *path);
  if (!item) co_return;
  if (!item->folder() && form == listing_form::mlsd) co_return client.reply(501, *path + ": not a folder; use MLST.");

  const auto channel = client.make_transfer(*path);
  outcome how;
  if (item->folder()) {
    entries_call take = [&](const tarvex_gridftp_server_control_stat_t* entries, int count) {
      (void)channel->push_text(listing_lines(request, entries, count));  // what has ended has cancelled the operation
    };
    how = co_await client.storage.list(verb, *path, std::move(take), channel);
  } else {
    std::string line = listing_line(request, item->stat, path_base_name(*path));
    how = co_await client.storage.say(verb, *path, std::move(line), channel);
  }
  answer_transfer(client, verb, *path, *channel, how);
}

}  // namespace

handled command_list(session& client, std::string argument) {
  return send_listing(client, "LIST", listing_form::list, std::string(listing_options_skip(argument)));
}

handled command_nlst(session& client, std::string argument) {
  return send_listing(client, "NLST", listing_form::nlst, std::string(listing_options_skip(argument)));
}

handled command_mlsd(session& client, std::string argument) {
  return send_listing(client, "MLSD", listing_form::mlsd, std::move(argument));
}

}  // namespace tarvex::server
