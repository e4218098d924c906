#include "base/number.h"
#include "command/handlers.h"
#include "command/stat.h"
#include "command/transfer_reply.h"
#include "session/session_state.h"
#include "storage/operation_send.h"
#include "storage/transfer.h"

#include <utility>

namespace tarvex::server {

void command_rest(session& session, const std::string& argument) {
  const auto offset = parse_number<std::int64_t>(argument);
  session.settings.restart_offset = 0;
  if (!offset || *offset < 0)
    return session_reply(session, 501, "REST takes an offset in bytes from 0 to 9223372036854775807.");
  session.settings.restart_offset = *offset;
  session_reply(session, 350, "Restarting at " + std::to_string(*offset) + "; send RETR or STOR.");
}

void command_retr(session& session, const std::string& argument) {
  const std::int64_t offset = std::exchange(session.settings.restart_offset, 0);
  const auto path = path_argument(session, argument);
  if (!path || !transfer_possible(session)) return;
  if (!session.setup.storage->interface->send_func) return session_reply(session, 502, "The storage sends no files.");
  file_stat_start(session, "RETR", *path, [path = *path, offset](server::session& of, const item_stat&) {
    auto op = send_make(of, "RETR", path, {offset, -1});
    op->transfer = std::make_shared<transfer>(of, op->verb, op->path);
    op->done = [](operation& over) { transfer_answer(over); };
    operation_start(of, std::move(op));
  });
}

/// An ABOR that comes while something runs is dealt with on arrival.
void command_abor(session& session, const std::string&) {
  session_reply(session, 225, "Nothing to abort.");
}

}  // namespace tarvex::server
