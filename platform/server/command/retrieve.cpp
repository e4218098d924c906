#include "command/answer.h"
#include "command/handler.h"
#include "command/look.h"
#include "session/session.h"
#include "storage/transfer.h"

#include <utility>

namespace tarvex::server {

handled command_retr(session& client, std::string argument) {
  const std::int64_t offset = std::exchange(client.settings.restart_offset, 0);
  const auto path = path_argument(client, argument);
  if (!path || !transfer_possible(client)) co_return;
  if (!client.storage.sends()) co_return client.reply(502, "The storage sends no files.");
  const auto item = co_await look_at_file(client, "RETR", *path);
  if (!item) co_return;
  const auto channel = client.make_transfer(*path);
  const byte_range range{offset, -1};
  const outcome how = co_await client.storage.send("RETR", *path, range, channel);
  answer_transfer(client, "RETR", *path, *channel, how);
}

/// An ABOR that comes while something runs is dealt with on arrival.
handled command_abor(session& client, std::string) {
  client.reply(225, "Nothing to abort.");
  co_return;
}

}  // namespace tarvex::server
