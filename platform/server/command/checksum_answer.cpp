#include "command/checksum_answer.h"

#include "base/checksum.h"
#include "base/text.h"
#include "command/answer.h"
#include "command/look.h"
#include "session/session.h"

#include <utility>

namespace tarvex::server {

namespace {

/// Tells a client that takes it, at intervals, how far a checksum has come. I/O thread.
class progress_teller {
 public:
  progress_teller(session& client, bool wanted) : client_(client), timer_(client.loop), wanted_(wanted) {}

  void start(const std::int64_t& bytes) {
    if (!wanted_ || client_.config.update_interval_s == 0) return;
    timer_.start(std::chrono::seconds(client_.config.update_interval_s), [this, &bytes] {
      client_.reply(113, std::to_string(bytes));
      start(bytes);
    });
  }

 private:
  session& client_;
  loop_timer timer_;
  const bool wanted_;
};

/// What was read has to be of the file: a range of something else has the range's length, too. \return whether it is
/// not, which is answered.
bool other_file_refused(session& client, std::int64_t size) {
  const content_heard content = client.storage.exchanges().summary().content;
  const bool refused = content.status != 0 && content.status != 200 && content.status != 206;
  if (refused) client.reply(451, "Box answered the download with " + std::to_string(content.status) + "; try again.");
  if (refused || content.status == 0 || content.whole_bytes < 0 || content.whole_bytes == size) return refused;
  client.reply(451, "The storage sent of a file of " + std::to_string(content.whole_bytes) +
                        " bytes, though this one has " + std::to_string(size) + "; it may have changed. Try again.");
  return true;
}

/// The server's own: of what the storage sends of the range.
handled compute(session& client, checksum_request request, std::int64_t size) {
  auto stream = checksum_stream::create(request.algorithm);
  if (!stream) co_return client.reply(504, request.algorithm + " is not available.");
  std::int64_t bytes = 0;
  if (request.length != 0) {
    if (!client.storage.sends()) co_return client.reply(502, "The storage sends no files.");
    progress_teller progress(client, request.progress);
    progress.start(bytes);
    bytes_sink sink = [&](std::span<const std::byte> part) {
      stream->update(part);
      bytes += static_cast<std::int64_t>(part.size());
    };
    const byte_range range{request.offset, request.length};
    const outcome how = co_await client.storage.read(request.verb, request.path, range, std::move(sink));
    if (!how.ok()) co_return answer_failure(client, request.verb, request.path, how);
  }
  const std::int64_t wanted = request.length >= 0 ? request.length : size - request.offset;
  if (bytes != wanted)
    co_return client.reply(451, "The storage sent " + std::to_string(bytes) + " of " + std::to_string(wanted) +
                                    " bytes; the file may have changed. Try again.");
  if (other_file_refused(client, size)) co_return;
  const auto digest = stream->finish();
  if (!digest) co_return client.reply(451, "The checksum could not be computed.");
  request.answer(client, *digest, size);
}

handled ask_storage(session& client, checksum_request request, std::int64_t size) {
  operation_subject subject{.verb = request.verb, .path = request.path};
  storage_command command{.type = TARVEX_GFS_CMD_CKSM, .path = request.path, .cksm_algorithm = request.algorithm};
  if (request.progress) command.progress = [&client](const std::string& text) { client.reply(113, text); };
  const command_answer answer = co_await client.storage.command(std::move(subject), std::move(command));
  if (!answer_change(client, request.verb, request.path, answer.how)) co_return;
  if (other_file_refused(client, size)) co_return;
  if (!answer.text) co_return client.reply(504, "The storage gave no checksum.");
  request.answer(client, *answer.text, size);
}

/// Whether the storage is to compute it. The MD5 that it computes it may keep beside the file at Box, which nobody who
/// only reads is to cause.
bool storage_computes(const session& client, const checksum_request& request) {
  const bool keeps = same_word(request.algorithm, "MD5");
  return request.whole() && client.storage.computes(request.algorithm) &&
         !(keeps && client.login.permissions == account_permissions::read_only);
}

}  // namespace

handled checksum_answer(session& client, checksum_request request) {
  const auto item = co_await look_at_file(client, request.verb, request.path);
  if (!item) co_return;
  const auto size = static_cast<std::int64_t>(item->size());
  const std::int64_t end = request.length < 0 ? request.offset : request.offset + request.length;
  if (request.offset > size || end > size)
    co_return client.reply(501,
                           "The range does not lie within the file, which has " + std::to_string(size) + " bytes.");
  if (storage_computes(client, request)) {
    co_await ask_storage(client, std::move(request), size);
    co_return;
  }
  // A range that begins at the end is empty, and storages refuse to send it.
  if (!request.whole() && request.offset == size) request.length = 0;
  co_await compute(client, std::move(request), size);
}

}  // namespace tarvex::server
