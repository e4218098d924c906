#include "command/look.h"

#include "command/answer.h"
#include "session/session.h"

namespace tarvex::server {

namespace asio = boost::asio;

asio::awaitable<std::optional<item_stat>> look_at(session& client, std::string verb, std::string path) {
  const stat_answer found = co_await client.storage.stat(verb, path);
  if (!found.how.ok()) answer_failure(client, verb, path, found.how);
  co_return found.how.ok() ? found.item : std::nullopt;
}

asio::awaitable<std::optional<item_stat>> look_at_file(session& client, std::string verb, std::string path) {
  const auto item = co_await look_at(client, std::move(verb), path);
  if (item && item->folder()) {
    client.reply(550, path + ": not a file.");
    co_return std::nullopt;
  }
  co_return item;
}

}  // namespace tarvex::server
