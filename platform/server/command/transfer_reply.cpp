#include "command/transfer_reply.h"

#include "base/log.h"
#include "session/session_state.h"
#include "storage/transfer.h"

#include <cinttypes>

namespace tarvex::server {

bool transfer_possible(session& session) {
  if (session.data.ready()) return true;
  session_reply(session, 425, "Prepare a data connection with PASV, EPSV, PORT or EPRT first.");
  return false;
}

void transfer_answer(operation& op) {
  session& session = op.session;
  const transfer& channel = *op.transfer;
  const bool complete = operation_succeeded(op) && !channel.failed();
  log_info("{}: {} {}: {} bytes in {:.3f} s: {}", session_who(session), op.verb, op.path, channel.moved_bytes(),
           channel.elapsed().count(), complete ? "complete" : operation_failure_text(op));
  session.data.close();
  if (!complete) return session.control.send(operation_failure_reply(op));
  session_reply(session, 226,
                "Transfer complete; " + std::to_string(channel.moved_bytes()) +
                    (channel.receives() ? " bytes received." : " bytes sent."));
}

}  // namespace tarvex::server
