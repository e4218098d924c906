#include "command/answer.h"
#include "command/handler.h"
#include "command/look.h"
#include "session/session.h"
#include "storage/transfer.h"

#include <utility>

namespace tarvex::server {

namespace {

/// What a transfer that the storage calls complete has to be: as many bytes as the file has from `offset` on. A size
/// that is not as the storage knew it is looked at once more, since others may have changed the file.
boost::asio::awaitable<outcome> judge(session& client, std::string path, std::uint64_t size, std::uint64_t end) {
  if (end == size) co_return outcome{};
  const stat_answer now = co_await client.storage.look_again("RETR", path);
  if (now.how.ok() && now.item->size() == end) co_return outcome{};
  const std::string known = std::to_string(now.how.ok() ? now.item->size() : size);
  co_return outcome_failure(451, "The storage sent the file up to byte " + std::to_string(end) + ", though it has " +
                                     known + " bytes; what came is not the whole file. Try again.");
}

}  // namespace

handled command_retr(session& client, std::string argument) {
  const std::int64_t offset = std::exchange(client.settings.restart_offset, 0);
  const auto path = path_argument(client, argument);
  if (!path || !transfer_possible(client)) co_return;
  if (!client.storage.sends()) co_return client.reply(502, "The storage sends no files.");
  auto item = co_await look_at_file(client, "RETR", *path);
  if (!item) co_return;
  const auto start = static_cast<std::uint64_t>(offset);
  if (start > item->size()) {
    const stat_answer now = co_await client.storage.look_again("RETR", *path);
    if (!now.how.ok()) co_return answer_failure(client, "RETR", *path, now.how);
    item = now.item;
  }
  if (start > item->size())
    co_return client.reply(551, "The file has " + std::to_string(item->size()) + " bytes; there is nothing at " +
                                    std::to_string(offset) + ".");

  const auto channel = client.make_transfer(*path);
  outcome how;
  if (start > 0 && start == item->size()) {
    how = co_await client.storage.say("RETR", *path, {}, channel);  // nothing is left, and storages refuse to send that
  } else {
    const byte_range range{offset, -1};
    how = co_await client.storage.send("RETR", *path, range, channel);
    if (how.ok()) how = co_await judge(client, *path, item->size(), start + channel->moved_bytes());
  }
  answer_transfer(client, "RETR", *path, *channel, how);
}

/// An ABOR that comes while something runs is dealt with on arrival.
handled command_abor(session& client, std::string) {
  client.reply(225, "Nothing to abort.");
  co_return;
}

}  // namespace tarvex::server
