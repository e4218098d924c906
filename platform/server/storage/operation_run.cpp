#include "storage/operation_run.h"

#include "base/log.h"
#include "storage/operation_prepare.h"
#include "storage/operation_verify.h"
#include "storage/storage_session.h"
#include "storage/store.h"
#include "storage/transfer.h"

namespace tarvex::server {

namespace {

using maker = change_view::maker;

bool ended_well(const operation& op) {
  return op.finished && !op.misused && op.result.ok();
}

/// Whether a failed operation was refused before it could change anything, for storages whose requests are not heard.
bool refused(const operation& op) {
  if (op.transfer && op.transfer->begun()) return false;
  const std::string_view word = result_class(op.result.get());
  return result_missing(op.result.get()) || word == "PATH_EXISTS" || word == "PERMISSION_DENIED" ||
         word == "INVALID_PATH_NAME" || word == "NOT_IMPLEMETED";
}

/// Whether it may have changed what is stored.
bool touched(const operation& op) {
  if (!op.subject.changes) return false;
  if (op.storage.exchanges().hears()) return op.storage.exchanges().summary().touched();
  return ended_well(op) || !refused(op);
}

/// Whether the storage knows as much of the change as there is to know. Of what lies below a folder that was removed or
/// renamed it does not: it goes on to answer for children that it has seen.
maker who_knows(const operation& op) {
  const bool folder = op.moves_folder;
  return ended_well(op) && op.certain && !op.cancelled && !folder ? maker::self : maker::nobody;
}

void enter(operation& op, maker by) {
  change_view& view = op.storage.others();
  const operation_subject& about = op.subject;
  if (!about.from_path.empty()) view.enter_change(about.from_path, by);
  if (about.removes || about.replaces || op.replaces || by == maker::nobody) view.enter_change(about.path, by);
  if (about.adds) view.enter_addition(about.path, by);
}

bool make_ready_again(operation& op) {
  if (op.rewind && !op.rewind()) return false;
  op.result = {};
  op.text.reset();
  op.finished = false;
  return true;
}

/// Prepares and runs it, once. \return whether it could be prepared.
bool run_once(operation& op) {
  op.storage.exchanges().begin([&op] {
    if (op.subject.changes) enter(op, maker::self);
  });
  if (!operation_prepare(op)) return false;
  operation_work(op);
  return true;
}

bool token_was_refused(const operation& op) {
  return op.storage.exchanges().summary().token_refused && op.finished && !op.result.ok() && !op.cancelled;
}

/// What Box refused for its token did nothing: it is run once more with another one, before any byte has flowed.
/// \return as run_once.
bool run_with_good_token(operation& op) {
  const bool prepared = run_once(op);
  if (!token_was_refused(op)) return prepared;
  op.storage.note_token_refused();
  if (op.storage.exchanges().summary().changing || !make_ready_again(op)) {
    op.token_refused = true;
    return prepared;
  }
  const bool prepared_again = run_once(op);
  if (token_was_refused(op)) op.storage.give_up("Box refuses this account's token; log in again later.");
  return prepared_again;
}

void run_and_tell(operation& op) {
  change_view& view = op.storage.others();
  exchange_log& log = op.storage.exchanges();
  const std::uint64_t when = view.now();
  if (run_with_good_token(op)) {
    const bool harmless = op.subject.existing_may_be_new || !log.summary().touched();
    if (harmless && operation_learn(op) && make_ready_again(op)) operation_work(op);
    log.end();
    operation_verify(op);
    if (op.subject.lists && ended_well(op)) view.note_listed(op.subject.path, when);
  } else {
    note_default_code(op, log.summary());
    doubt_what_was_not_seen(op, log.summary());
  }
  log.end();
  if (touched(op)) enter(op, who_knows(op));
}

}  // namespace

void operation_run(operation& op) noexcept {
  if (op.kind == operation_kind::session_start) {
    op.storage.exchanges().begin({});
    return operation_work(op);
  }
  try {
    run_and_tell(op);
  } catch (const std::exception& error) {
    log_error("{} {}: {}", op.subject.verb, operation_path(op), error.what());
    op.misused = true;
  }
}

}  // namespace tarvex::server
