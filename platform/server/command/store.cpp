#include "base/number.h"
#include "base/text.h"
#include "command/answer.h"
#include "command/handler.h"
#include "ftp/path.h"
#include "session/session.h"
#include "storage/transfer.h"

#include <memory>
#include <optional>
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
  const unfinished_store* const left = client.storage.unfinished(path);
  if (place.target && !(left && left->beside_file))
    return path + " exists; only an upload that was cut off can go on at an offset.";
  if (!left || left->offset == 0)
    return "Nothing to go on with: only a large upload of this session that was cut off can go on at an offset.";
  const unfinished_store& cut = *left;
  // Blocks say where they belong, so a client may send again what is there.
  const bool repeats = client.settings.block_mode && request.offset < cut.offset;
  if (request.offset != cut.offset && !repeats)
    return "This upload can go on with REST " + std::to_string(cut.offset) + " only.";
  if (request.size != 0 && request.size != cut.size && request.size != cut.size - request.offset)
    return "This upload has " + std::to_string(cut.size) + " bytes, of which " + std::to_string(cut.size - cut.offset) +
           " are to come.";
  request.size = cut.size;
  request.offset = cut.offset;
  request.session = cut.session;
  request.beside_file = cut.beside_file && place.target;
  return {};
}

/// What REST, ALLO and STORATTR have said of the next store; they count once. \return nothing when it cannot go on as
/// REST said; the client was told.
std::optional<store_request> request_take(session& client) {
  client_settings& settings = client.settings;
  const file_ranges held = std::exchange(settings.held, {});
  store_request request;
  request.size = std::exchange(settings.announced_size, 0);
  request.modification_time = std::exchange(settings.modification_time, -1);
  if (held.empty()) return request;
  request.offset = held.front().end;
  if (held.size() == 1 && held.front().begin == 0) return request;
  client.reply(553, "An upload goes on behind what was stored, so that has to be one range from byte 0 on.");
  return std::nullopt;
}

handled store_file(session& client, std::string verb, std::string argument, store_request request) {
  const auto path = path_argument(client, argument);
  if (!path || root_refused(client, *path) || !upload_possible(client)) co_return;
  if (!client.storage.receives()) co_return client.reply(502, "The storage takes no files.");

  // Whether it can succeed, before anything is sent or spooled.
  const auto place = std::make_shared<storage_session::place>();
  outcome how = co_await client.storage.look_at_place(verb, *path, place);
  if (!how.ok()) co_return answer_failure(client, verb, *path, how);
  request.new_only = client.login.permissions == account_permissions::upload_only;
  if (request.new_only && place->target) co_return answer_denied(client, verb, *path);
  how = place_refusal(*place, *path);
  if (!how.ok()) co_return client.reply(how.code, how.lines);
  if (request.offset > 0) {
    const std::string refusal = continuation_refusal(client, *path, *place, request);
    if (!refusal.empty()) co_return client.reply(553, refusal);
  } else {
    how = co_await client.storage.forget_unfinished(*path);
    if (!how.ok()) co_return answer_failure(client, verb, *path, how);
  }
  request.replaces = place->target.has_value();

  const auto channel = client.make_transfer(*path);
  how = co_await client.storage.receive(*path, request, channel);
  answer_transfer(client, verb, *path, *channel, how);
}

}  // namespace

handled command_stor(session& client, std::string argument) {
  const auto request = request_take(client);
  if (request) co_await store_file(client, "STOR", std::move(argument), *request);
}

/// "A offset path": what the data say of where they belong counts from the offset.
handled command_esto(session& client, std::string argument) {
  auto request = request_take(client);
  if (!request) co_return;
  std::string_view rest = argument;
  const std::string_view mode = take_word(rest);
  const auto offset = parse_number<std::int64_t>(take_word(rest));
  if (!same_word(mode, "A"))
    co_return client.reply(504, "ESTO " + std::string(mode) + " is not offered; ESTO takes: A offset path.");
  if (!offset || *offset < 0 || rest.empty()) co_return client.reply(501, "ESTO takes: A offset path.");
  if (request->offset > 0 && *offset > 0)
    co_return client.reply(553, "REST and the offset of ESTO cannot both say where the upload goes on.");
  request->shift = static_cast<std::uint64_t>(*offset);
  if (*offset > 0) request->offset = request->shift;
  co_await store_file(client, "ESTO", std::string(rest), *request);
}

/// Refused before anything is touched: a storage would begin by deleting the file that is to grow.
handled command_appe(session& client, std::string) {
  if (request_take(client)) client.reply(553, "Nothing can be appended to a file here; store it whole with STOR.");
  co_return;
}

}  // namespace tarvex::server
