#include "command/operation_checksum.h"

#include "base/checksum.h"
#include "base/log.h"
#include "base/text.h"
#include "command/stat.h"
#include "session/session_state.h"
#include "storage/operation_command.h"
#include "storage/operation_send.h"

#include <memory>
#include <utility>

namespace tarvex::server {

namespace {

/// A checksum that the server computes. I/O thread.
struct running_checksum {
  running_checksum(session& session, checksum_request wanted, checksum_stream sum, std::int64_t file_size)
      : request(std::move(wanted)), stream(std::move(sum)), size(file_size), timer(session.loop) {}

  checksum_request request;
  checksum_stream stream;
  std::int64_t size;
  std::int64_t bytes = 0;
  loop_timer timer;
};

void tell_progress(session& session, running_checksum& running) {
  const unsigned interval = session.setup.config->update_interval_s;
  if (!running.request.progress || interval == 0) return;
  running.timer.start(std::chrono::seconds(interval), [&session, &running] {
    session_reply(session, 113, std::to_string(running.bytes));
    tell_progress(session, running);
  });
}

void answer_digest(session& session, running_checksum& running) {
  const std::int64_t wanted = running.request.length;
  if (wanted >= 0 && running.bytes != wanted)
    return session_reply(session, 551,
                         "The storage sent " + std::to_string(running.bytes) + " bytes of the " +
                             std::to_string(wanted) + " in the range; the file has changed.");
  const auto digest = running.stream.finish();
  if (!digest) return session_reply(session, 451, "The checksum could not be computed.");
  running.request.answer(session, *digest, running.size);
}

void checksum_over(operation& over, running_checksum& running) {
  running.timer.cancel();
  if (operation_succeeded(over) && !over.cancelled) return answer_digest(over.session, running);
  command_log_failure(over);
  over.session.control.send(operation_failure_reply(over));
}

void compute(session& session, checksum_request request, std::int64_t size) {
  auto stream = checksum_stream::create(request.algorithm);
  if (!stream) return session_reply(session, 504, request.algorithm + " is not available.");
  const auto running = std::make_shared<running_checksum>(session, std::move(request), std::move(*stream), size);
  const checksum_request& wanted = running->request;
  if (wanted.length == 0) return answer_digest(session, *running);
  if (!session.setup.storage->interface->send_func) return session_reply(session, 502, "The storage sends no files.");
  auto op = send_make(session, wanted.verb, wanted.path, {wanted.offset, wanted.length});
  op->sink = [running](std::span<const std::byte> bytes) {
    running->stream.update(bytes);
    running->bytes += static_cast<std::int64_t>(bytes.size());
  };
  op->done = [running](operation& over) { checksum_over(over, *running); };
  tell_progress(session, *running);
  operation_start(session, std::move(op));
}

void ask_storage(session& session, checksum_request request, std::int64_t size) {
  storage_command command;
  command.type = TARVEX_GFS_CMD_CKSM;
  command.path = request.path;
  command.cksm_algorithm = request.algorithm;
  auto op = command_make(session, request.verb, std::move(command));
  op->changes = false;
  op->progress = request.progress;
  command_start(std::move(op), [request = std::move(request), size](operation& over) {
    if (!over.text) return session_reply(over.session, 504, "The storage gave no checksum.");
    request.answer(over.session, *over.text, size);
  });
}

/// A file found: its size decides about the range.
void file_found(session& session, checksum_request request, std::int64_t size) {
  const std::int64_t end = request.length < 0 ? request.offset : request.offset + request.length;
  if (request.offset > size || end > size)
    return session_reply(session, 501,
                         "The range does not lie within the file, which has " + std::to_string(size) + " bytes.");
  const bool whole = request.offset == 0 && request.length < 0;
  if (whole && checksum_by_storage(session, request.algorithm)) return ask_storage(session, std::move(request), size);
  // A range that begins at the end is empty, and storages refuse to send it.
  if (!whole && request.offset == size) request.length = 0;
  compute(session, std::move(request), size);
}

}  // namespace

bool checksum_by_storage(const session& session, std::string_view algorithm) {
  if (!session.setup.storage->interface || !session.setup.storage->interface->command_func) return false;
  std::string_view announced = session.storage.checksums;
  while (!announced.empty()) {
    const std::string_view entry = announced.substr(0, announced.find(';'));
    if (same_word(entry.substr(0, entry.find(':')), algorithm)) return true;
    announced.remove_prefix(std::min(announced.size(), entry.size() + 1));
  }
  return false;
}

void checksum_start(session& session, checksum_request request) {
  const std::string verb = request.verb;
  const std::string path = request.path;
  file_stat_start(session, verb, path, [request = std::move(request)](server::session& of, const item_stat& item) {
    file_found(of, request, std::max<tarvex_off_t>(item.stat.size, 0));
  });
}

}  // namespace tarvex::server
