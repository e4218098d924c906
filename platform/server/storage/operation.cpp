#include "storage/operation.h"

#include "base/log.h"
#include "storage/storage_session.h"
#include "storage/transfer.h"

namespace tarvex::server {

namespace {

constexpr int MISUSE_CODE = 451;

void note_misuse(operation& op, const char* what) {
  log_error("{} {}: {}", op.subject.verb, operation_path(op), what);
  op.misused = true;
}

}  // namespace

void operation_work(operation& op) noexcept {
  try {
    op.work(op);
  } catch (const std::exception& error) {
    note_misuse(op, error.what());
  }
  if (!op.finished) note_misuse(op, "the storage returned without completing the operation");
}

bool operation_complete(operation& op, operation_kind by, tarvex_result_t result) {
  owned_result owned(result);
  if (op.kind != by || op.finished.exchange(true)) {
    note_misuse(op, "the storage completed the operation twice or with the wrong call");
    return false;
  }
  op.result = std::move(owned);
  return true;
}

bool operation_succeeded(const operation& op) {
  return !op.misused && op.result.ok();
}

namespace {

outcome failure_of(const operation& op) {
  // The transfer knows best: what the plug-in makes of a broken data connection is an effect of that.
  if (op.transfer && op.transfer->failed())
    return outcome_failure(op.transfer->failed()->code, op.transfer->failed()->text);
  if (op.misused) return outcome_failure(MISUSE_CODE, "The storage did not complete the operation as it should.");
  if (op.cancelled && !(op.result.ok() && op.subject.changes)) return outcome_failure(426, "The command was aborted.");
  return outcome_of(op.result.get(), op.default_code);
}

}  // namespace

std::string operation_path(const operation& op) {
  return op.storage.root().to_client(op.subject.path);
}

std::string operation_text(const operation& op, std::string_view text) {
  return op.storage.root().text_to_client(text, {op.subject.path, op.subject.from_path});
}

outcome operation_outcome(const operation& op) {
  outcome how = failure_of(op);
  if (how.ok()) return how;
  if (!op.storage.hopeless().empty()) return outcome_failure(421, op.storage.hopeless());
  if (op.token_refused) return outcome_failure(451, "Box took the token no more while this ran; try again.");
  if (!op.remark.empty()) how.lines.push_back(op.remark);
  for (std::string& line : how.lines) line = operation_text(op, line);
  return how;
}

}  // namespace tarvex::server
