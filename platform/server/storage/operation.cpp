#include "storage/operation.h"

#include "base/log.h"
#include "ftp/reply.h"
#include "session/session_state.h"
#include "storage/relist.h"
#include "storage/transfer.h"

#include <malloc.h>

namespace tarvex::server {

namespace {

constexpr int MISUSE_CODE = 451;
constexpr const char* MISUSE_TEXT = "The storage did not complete the operation as it should.";
constexpr int DEFAULT_CODE = 500;
constexpr std::uint64_t TRIM_ABOVE_BYTES = 4 << 20;

/// Operation thread. No exception of ours or of a plug-in in C++ ends the process from here.
void run_work(operation& op) noexcept {
  try {
    op.work(op);
  } catch (const std::exception& error) {
    log_error("{} {}: {}", op.verb, op.path, error.what());
    op.misused = true;
  }
  if (!op.finished) {
    log_error("{} {}: the storage returned without completing the operation", op.verb, op.path);
    op.misused = true;
  }
}

/// The operation is over and answered. The answer may start another one, or keep the session busy for a while.
void hand_over(session& session) {
  std::unique_ptr<operation> over = std::move(session.running);
  const bool large = over->transfer && over->transfer->moved_bytes() > TRIM_ABOVE_BYTES;
  session.busy = false;
  // A folder above may have another name now, and the upload would end where its old one was.
  if (!over->from_path.empty())
    for (auto& [path, left] : session.unfinished) left.offset = 0;
  over->done(*over);
  over.reset();
  if (large) malloc_trim(0);
  if (session.ending || !session.busy) session_command_over(session);
}

/// I/O thread: the plug-in is done with the operation. A transfer's data channel is ended before the client is told.
void work_returned(operation& op) {
  if (!op.transfer) return hand_over(op.session);
  // A client that was promised data gets its connection, though there may be nothing to send over it.
  if (operation_succeeded(op)) op.transfer->begin();
  if (!op.transfer->begun()) return hand_over(op.session);
  session& session = op.session;
  op.transfer->finish(operation_succeeded(op), [&session] { session.loop.post([&session] { hand_over(session); }); });
}

}  // namespace

void operation_start(session& session, std::unique_ptr<operation> op) {
  session.busy = true;
  session.running = std::move(op);
  tarvex_cancel_reset(session.cancel);
  operation& running = *session.running;
  session.worker->submit([&session, &running] {
    operation_run(running, run_work);
    session.loop.post([&running] { work_returned(running); });
  });
}

bool operation_cancel(session& session, int code, const std::string& text) {
  if (!session.running) return false;
  session.running->cancelled = true;
  tarvex_cancel_request(session.cancel);
  if (const auto transfer = session.running->transfer) transfer->fail(code, text);
  return true;
}

bool operation_complete(operation& op, operation_kind by, tarvex_result_t result) {
  owned_result owned(result);
  if (op.kind != by || op.finished.exchange(true)) {
    log_error("{} {}: the storage completed the operation twice or with the wrong call", op.verb, op.path);
    op.misused = true;
    return false;
  }
  op.result = std::move(owned);
  return true;
}

bool operation_succeeded(const operation& op) {
  return !op.misused && op.result.ok();
}

std::string operation_failure_reply(const operation& op) {
  if (op.transfer && op.transfer->failed())
    return reply_format(op.transfer->failed()->code, op.transfer->failed()->text);
  if (op.misused) return reply_format(MISUSE_CODE, MISUSE_TEXT);
  if (op.cancelled) return reply_format(426, "The command was aborted.");
  return reply_from_error(op.result.get(), DEFAULT_CODE);
}

std::string operation_failure_text(const operation& op) {
  if (op.transfer && op.transfer->failed()) return op.transfer->failed()->text;
  if (op.misused) return MISUSE_TEXT;
  if (op.cancelled) return "aborted";
  return error_text(op.result.get());
}

}  // namespace tarvex::server
