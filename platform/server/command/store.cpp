#include "storage/store.h"
#include "base/log.h"
#include "base/number.h"
#include "base/text.h"
#include "command/handlers.h"
#include "command/stat.h"
#include "command/transfer_reply.h"
#include "ftp/listing.h"
#include "ftp/path.h"
#include "ftp/reply.h"
#include "session/session_renew.h"
#include "session/session_state.h"
#include "storage/transfer.h"

#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace tarvex::server {

namespace {

/// What stands at a store's path, and above it.
struct store_place {
  std::optional<item_stat> parent, target;
};

bool says_missing(tarvex_result_t result) {
  const char* const word = tarvex_gfs_ftp_response_error_class(tarvex_error_peek(result));
  return word && std::string_view(word) == "PATH_NOT_FOUND";
}

/// Operation thread. A target that is missing is what a store hopes for.
void place_find(operation& op, store_place& place) {
  place = {};
  owned_result result = stat_inside(op, path_parent(op.path), place.parent);
  if (result.ok() && place.parent && place.parent->folder()) {
    result = stat_inside(op, op.path, place.target);
    if (says_missing(result.get())) result = {};
  }
  (void)operation_complete(op, operation_kind::stat, result.release());
}

/// Why nothing can be stored there; empty when something can.
std::string place_refusal(const store_place& place, const std::string& path) {
  if (!place.parent || !place.parent->folder())
    return reply_format(553, {"NOT_A_DIRECTORY", "GridFTP-Path: " + path_quoted(path_parent(path))});
  if (place.target && place.target->folder()) return reply_format(553, path + " is a folder.");
  return {};
}

/// Finds out whether a store can succeed, before anything is sent or spooled.
void place_check(session& session, const std::string& path,
                 std::function<void(server::session&, const store_place&)> good) {
  auto op = operation_make(session, operation_kind::stat, "STOR", path);
  const auto place = std::make_shared<store_place>();
  op->work = [place](operation& started) { place_find(started, *place); };
  op->done = [place, good = std::move(good)](operation& over) {
    std::string refusal;
    if (!operation_succeeded(over) || over.cancelled) {
      command_log_failure(over);
      refusal = operation_failure_reply(over);
    } else {
      refusal = place_refusal(*place, over.path);
    }
    if (!refusal.empty()) return over.session.control.send(refusal);
    good(over.session, *place);
  };
  operation_start(session, std::move(op));
}

/// Why the store cannot go on at its offset; empty when it can. What the client announced may be the whole size or what
/// is left of it; the request gets the whole size.
std::string continuation_refusal(session& session, const std::string& path, const store_place& place,
                                 store_request& request) {
  const auto left = session.unfinished.find(path);
  if (place.target) return path + " exists; only an upload that was cut off can go on at an offset.";
  if (left == session.unfinished.end() || left->second.offset == 0)
    return "Nothing to go on with: only a large upload of this session that was cut off can go on at an offset.";
  const unfinished_store& cut = left->second;
  if (request.offset != cut.offset) return "This upload can go on with REST " + std::to_string(cut.offset) + " only.";
  if (request.size != 0 && request.size != cut.size && request.size != cut.size - cut.offset)
    return "This upload has " + std::to_string(cut.size) + " bytes, of which " + std::to_string(cut.size - cut.offset) +
           " are to come.";
  request.size = cut.size;
  return {};
}

/// Remembers what the plug-in keeps of a store that failed, and tells the client where it can go on.
void leftover_note(operation& op) {
  session& session = op.session;
  if (operation_succeeded(op)) {
    session.unfinished.erase(op.path);
    return;
  }
  const auto left = op.store->leftover();
  if (!left) return;
  session.unfinished[op.path] = *left;
  if (left->offset > 0)
    op.transfer->explain_failure("To go on, send REST " + std::to_string(left->offset) + " and STOR in this session.");
}

void store_answer(operation& op) {
  if (operation_succeeded(op) && !op.store->complete()) {
    log_error("STOR {}: the storage reported success before it had all data", op.path);
    op.misused = true;
  }
  leftover_note(op);
  transfer_answer(op);
}

void store_start(session& session, const std::string& path, const store_request& request) {
  auto op = operation_make(session, operation_kind::transfer, "STOR", path);
  op->transfer = std::make_shared<transfer>(session, op->verb, op->path);
  op->store = std::make_shared<store>(session, op->transfer, request);
  op->changes = true;
  op->existing_may_be_new = true;
  op->rewind = [](operation& again) { return again.store->rewind(); };
  op->work = [](operation& started) { started.store->run(started); };
  op->done = [](operation& over) { store_answer(over); };
  operation_start(session, std::move(op));
}

/// A storage keeps what is left of an upload under its path, which is in the way of one that starts afresh.
void store_afresh(session& session, const std::string& path, const store_request& request) {
  if (!session.unfinished.contains(path)) return store_start(session, path, request);
  session_renew_storage(session, [path, request](server::session& of) { store_start(of, path, request); });
}

store_request request_take(client_settings& settings) {
  return {std::exchange(settings.announced_size, 0),
          static_cast<std::uint64_t>(std::exchange(settings.restart_offset, 0)),
          std::exchange(settings.modification_time, -1)};
}

}  // namespace

/// RFC 959 section 4.1.3. The size of a record ("R n") means nothing here.
void command_allo(session& session, const std::string& argument) {
  std::string_view rest = argument;
  const auto size = parse_number<std::int64_t>(take_word(rest));
  const std::string_view word = take_word(rest);
  const bool good = word.empty() || (same_word(word, "R") && parse_number<std::int64_t>(rest).value_or(-1) >= 0);
  if (!size || *size < 0 || !good) return session_reply(session, 501, "ALLO takes a size in bytes, or size R size.");
  session.settings.announced_size = static_cast<std::uint64_t>(*size);
  session_reply(session, 200, "The next store has " + std::to_string(*size) + " bytes.");
}

void command_storattr(session& session, const std::string& argument) {
  std::string_view rest = argument;
  std::optional<std::time_t> time;
  constexpr std::string_view FACT = "modify=";
  if (rest.ends_with(';')) rest.remove_suffix(1);
  if (same_word(rest.substr(0, FACT.size()), FACT)) time = listing_timestamp_parse(rest.substr(FACT.size()));
  if (!time) return session_reply(session, 501, "STORATTR takes modify=YYYYMMDDHHMMSS;.");
  session.settings.modification_time = *time;
  session_reply(session, 200, "The next stored file gets this modification time.");
}

void command_stor(session& session, const std::string& argument) {
  const store_request request = request_take(session.settings);
  const auto path = path_argument(session, argument);
  if (!path || !transfer_possible(session)) return;
  if (!session.setup.storage->interface->recv_func) return session_reply(session, 502, "The storage takes no files.");
  place_check(session, *path, [path = *path, request = request](server::session& of, const store_place& place) mutable {
    if (request.offset == 0) return store_afresh(of, path, request);
    const std::string refusal = continuation_refusal(of, path, place, request);
    if (!refusal.empty()) return session_reply(of, 553, refusal);
    store_start(of, path, request);
  });
}

/// Refused before anything is touched: a storage would begin by deleting the file that is to grow.
void command_appe(session& session, const std::string&) {
  (void)request_take(session.settings);
  session_reply(session, 553, "Nothing can be appended to a file here; store it whole with STOR.");
}

}  // namespace tarvex::server
