#include "base/number.h"
#include "base/text.h"
#include "command/answer.h"
#include "command/handler.h"
#include "command/look.h"
#include "session/session.h"
#include "storage/transfer.h"

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

namespace tarvex::server {

namespace {

constexpr std::uint64_t TO_THE_END = std::numeric_limits<std::uint64_t>::max();

/// What a client wants of a file: those bytes of `part` that it does not hold.
struct retrieve_request {
  std::string verb;
  std::string path;
  file_range part;
  file_ranges held;

  bool to_the_end() const { return part.end == TO_THE_END; }
  /// The size that the file must have at least.
  std::uint64_t reach() const {
    const std::uint64_t asked = to_the_end() ? part.begin : part.end;
    return held.empty() ? asked : std::max(asked, held.back().end);
  }
};

/// What a storage is to send, of a file of this size.
std::vector<byte_range> ranges_to_send(const retrieve_request& request, const file_ranges& missing,
                                       std::uint64_t size) {
  std::vector<byte_range> ranges;
  for (const file_range& range : missing)
    ranges.push_back({static_cast<tarvex_off_t>(range.begin), static_cast<tarvex_off_t>(range.bytes())});
  if (missing.empty()) ranges.push_back({static_cast<tarvex_off_t>(request.part.begin), -1});
  if (request.to_the_end() && !missing.empty() && missing.back().end == size) ranges.back().length = -1;
  return ranges;
}

/// What a transfer that the storage calls complete has to be: as many bytes as are missing. A size that is not as the
/// storage knew it is looked at once more, since others may have changed the file.
boost::asio::awaitable<outcome> judge(session& client, retrieve_request request, std::uint64_t size,
                                      std::uint64_t missing, std::uint64_t moved) {
  if (moved == missing) co_return outcome{};
  if (!request.to_the_end())
    co_return outcome_failure(451, "The storage sent " + std::to_string(moved) + " bytes of the " +
                                       std::to_string(missing) + " that were asked for. Try again.");
  const std::uint64_t end = size - missing + moved;
  const stat_answer now = co_await client.storage.look_again(request.verb, request.path);
  if (now.how.ok() && now.item->size() == end) co_return outcome{};
  const std::string known = std::to_string(now.how.ok() ? now.item->size() : size);
  co_return outcome_failure(451, "The storage sent the file up to byte " + std::to_string(end) + ", though it has " +
                                     known + " bytes; what came is not the whole file. Try again.");
}

handled send_item(session& client, retrieve_request request, std::uint64_t size) {
  const file_range part{request.part.begin, std::min(request.part.end, size)};
  const file_ranges missing = file_ranges_missing(request.held, part);
  const std::uint64_t bytes = file_ranges_bytes(missing);
  const auto channel = client.make_transfer(request.path);
  channel->announce(bytes);
  outcome how;
  const bool whole = request.to_the_end() && request.reach() == 0;
  if (missing.empty() && !whole) {
    // Nothing is left, and storages refuse to send that.
    how = co_await client.storage.say(request.verb, request.path, {}, channel);
  } else {
    std::vector<byte_range> ranges = ranges_to_send(request, missing, size);
    how = co_await client.storage.send(request.verb, request.path, std::move(ranges), channel);
    if (how.ok()) how = co_await judge(client, request, size, bytes, channel->moved_bytes());
  }
  answer_transfer(client, request.verb, request.path, *channel, how);
}

handled retrieve(session& client, retrieve_request request) {
  const auto path = path_argument(client, request.path);
  if (!path || !download_possible(client)) co_return;
  request.path = *path;
  if (!client.storage.sends()) co_return client.reply(502, "The storage sends no files.");
  auto item = co_await look_at_file(client, request.verb, *path);
  if (!item) co_return;
  if (request.reach() > item->size()) {
    const stat_answer now = co_await client.storage.look_again(request.verb, *path);
    if (!now.how.ok()) co_return answer_failure(client, request.verb, *path, now.how);
    item = now.item;
  }
  if (request.reach() > item->size())
    co_return client.reply(551, "The file has " + std::to_string(item->size()) + " bytes; there is nothing at " +
                                    std::to_string(request.reach()) + ".");
  co_await send_item(client, std::move(request), item->size());
}

}  // namespace

handled command_retr(session& client, std::string argument) {
  retrieve_request request{"RETR", std::move(argument), {0, TO_THE_END}, std::exchange(client.settings.held, {})};
  co_await retrieve(client, std::move(request));
}

/// "P offset length path": a part of the file. A length of -1 reaches to its end.
handled command_eret(session& client, std::string argument) {
  std::string_view rest = argument;
  const file_ranges held = std::exchange(client.settings.held, {});
  const std::string_view mode = take_word(rest);
  const auto offset = parse_number<std::int64_t>(take_word(rest));
  const auto length = parse_number<std::int64_t>(take_word(rest));
  if (!same_word(mode, "P"))
    co_return client.reply(504, "ERET " + std::string(mode) + " is not offered; ERET takes: P offset length path.");
  if (!offset || !length || *offset < 0 || *length < -1 || rest.empty() ||
      *length > std::numeric_limits<std::int64_t>::max() - *offset)
    co_return client.reply(501, "ERET takes: P offset length path (length -1: to the end).");
  const auto begin = static_cast<std::uint64_t>(*offset);
  const file_range part{begin, *length < 0 ? TO_THE_END : begin + static_cast<std::uint64_t>(*length)};
  retrieve_request request{"ERET", std::string(rest), part, held};
  co_await retrieve(client, std::move(request));
}

/// An ABOR that comes while something runs is dealt with on arrival.
handled command_abor(session& client, std::string) {
  client.reply(225, "Nothing to abort.");
  co_return;
}

}  // namespace tarvex::server
