#include "command/answer.h"
#include "command/handler.h"
#include "ftp/path.h"
#include "session/session.h"
#include "storage/transfer.h"

#include <memory>
#include <utility>

namespace tarvex::server {

namespace {

/// Why nothing can be stored there; good when something can.
outcome place_refusal(const storage_session::place& place, const std::string& path) {
  if (!place.parent || !place.parent->folder())
    return {553, {"NOT_A_DIRECTORY", "GridFTP-Path: " + path_quoted(path_parent(path))}, "NOT_A_DIRECTORY"};
  if (place.target && place.target->folder()) return outcome_failure(553, path + " is a folder.");
  return {};
}

/// Why the store cannot go on at its offset; empty when it can. What the client announced may be the whole size or what
/// is left of it; the request gets the whole size.
std::string continuation_refusal(session& client, const std::string& path, const storage_session::place& place,
                                 store_request& request) {
  const auto& unfinished = client.storage.unfinished();
  const auto left = unfinished.find(path);
  if (place.target) return path + " exists; only an upload that was cut off can go on at an offset.";
  if (left == unfinished.end() || left->second.offset == 0)
    return "Nothing to go on with: only a large upload of this session that was cut off can go on at an offset.";
  const unfinished_store& cut = left->second;
  if (request.offset != cut.offset) return "This upload can go on with REST " + std::to_string(cut.offset) + " only.";
  if (request.size != 0 && request.size != cut.size && request.size != cut.size - cut.offset)
    return "This upload has " + std::to_string(cut.size) + " bytes, of which " + std::to_string(cut.size - cut.offset) +
           " are to come.";
  request.size = cut.size;
  request.session = cut.session;
  return {};
}

/// What REST, ALLO and STORATTR have said of the next store; they count once.
store_request request_take(client_settings& settings) {
  store_request request;
  request.size = std::exchange(settings.announced_size, 0);
  request.offset = static_cast<std::uint64_t>(std::exchange(settings.restart_offset, 0));
  request.modification_time = std::exchange(settings.modification_time, -1);
  return request;
}

}  // namespace

handled command_stor(session& client, std::string argument) {
  store_request request = request_take(client.settings);
  const auto path = path_argument(client, argument);
  if (!path || root_refused(client, *path) || !transfer_possible(client)) co_return;
  if (!client.storage.receives()) co_return client.reply(502, "The storage takes no files.");

  // Whether it can succeed, before anything is sent or spooled.
  const auto place = std::make_shared<storage_session::place>();
  outcome how = co_await client.storage.look_at_place("STOR", *path, place);
  if (!how.ok()) co_return answer_failure(client, "STOR", *path, how);
  how = place_refusal(*place, *path);
  if (!how.ok()) co_return client.reply(how.code, how.lines);
  if (request.offset > 0) {
    const std::string refusal = continuation_refusal(client, *path, *place, request);
    if (!refusal.empty()) co_return client.reply(553, refusal);
  } else {
    how = co_await client.storage.forget_unfinished(*path);
    if (!how.ok()) co_return answer_failure(client, "STOR", *path, how);
  }
  request.replaces = place->target.has_value();

  const auto channel = client.make_transfer(*path);
  how = co_await client.storage.receive(*path, request, channel);
  answer_transfer(client, "STOR", *path, *channel, how);
}

/// Refused before anything is touched: a storage would begin by deleting the file that is to grow.
handled command_appe(session& client, std::string) {
  (void)request_take(client.settings);
  client.reply(553, "Nothing can be appended to a file here; store it whole with STOR.");
  co_return;
}

}  // namespace tarvex::server
