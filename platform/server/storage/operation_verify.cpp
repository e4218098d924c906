#include "storage/operation_verify.h"

#include "base/log.h"
#include "ftp/path.h"
#include "storage/inside.h"
#include "storage/storage_session.h"
#include "storage/store.h"

#include <array>
#include <ctime>

namespace tarvex::server {

namespace {

constexpr timespec LOOK_AGAIN = {.tv_sec = 1, .tv_nsec = 0};  // a listing may lag behind a change

owned_result failure(const char* class_word, const std::string& text) {
  return owned_result(
      tarvex_error_put(tarvex_gfs_ftp_response_error_construct(nullptr, nullptr, 451, class_word, "%s", text.c_str())));
}

owned_result not_known(const operation& op) {
  return failure("OUTCOME_UNKNOWN", "Box's answer was lost and it cannot be looked at: whether " + op.subject.verb +
                                        " " + op.subject.path + " was done is not known. Look before trying again.");
}

bool is_plain_refusal(int status) {
  return status == 400 || status == 401 || status == 403 || status == 404 || status == 409 || status == 429;
}

/// Whether requests of this kind leave open what they have done. Answers that Box gives to what it has done say that it
/// was; refusals that the storage takes for refusals say that it was not, unless an earlier request may have done it.
bool leaves_open(const operation& op, const request_fate& fate, std::initializer_list<int> done) {
  if (fate.sent == 0) return false;
  if (fate.doubtful) return true;
  for (const int status : done)
    if (fate.status == status) return !op.result.ok();
  // What Box does not refuse plainly, and the storage makes no sense of, was perhaps no refusal.
  const bool strange = !is_plain_refusal(fate.status) && result_class(op.result.get()).empty();
  return op.result.ok() || fate.status < 400 || strange;
}

enum class seen { there, gone, unknown };

seen look(operation& op, const std::string& path, std::optional<item_stat>& item) {
  const owned_result found = find_inside(op, path, item);
  if (!found.ok()) return result_missing(found.get()) ? seen::gone : seen::unknown;
  return item ? seen::there : seen::gone;
}

/// Looks until what is hoped for is seen, twice at most.
seen look_for(operation& op, const std::string& path, seen hoped, std::optional<item_stat>& item) {
  seen now = look(op, path, item);
  if (now == hoped || now == seen::unknown || op.cancelled) return now;
  if (tarvex_sleep(&LOOK_AGAIN) != 0) return now;
  item.reset();
  return look(op, path, item);
}

void settle(operation& op, bool done, const std::string& undone) {
  const bool well = op.result.ok();
  if (done && !well)
    log_info("{}: {} {}: done, though its answer was lost", op.storage.who(), op.subject.verb, operation_path(op));
  if (done) op.result = {};
  if (!done && well) op.result = failure("NOT_DONE", undone);
}

void verify_removal(operation& op, const exchange_summary& heard) {
  if (!leaves_open(op, heard.deletes, {200, 204})) return;
  op.certain = false;
  std::optional<item_stat> item;
  const seen now = look_for(op, op.subject.path, seen::gone, item);
  if (now == seen::unknown) {
    op.result = not_known(op);
  } else {
    settle(op, now == seen::gone, "Box has not removed " + op.subject.path + "; try again.");
  }
}

void verify_rename(operation& op, const exchange_summary& heard) {
  if (!leaves_open(op, heard.puts, {200})) return;
  op.certain = false;
  std::optional<item_stat> item;
  const seen target = look_for(op, op.subject.path, seen::there, item);
  const seen source = target == seen::there ? look(op, op.subject.from_path, item = {}) : seen::there;
  if (target == seen::unknown || source == seen::unknown) {
    op.result = not_known(op);
  } else {
    settle(op, target == seen::there && source == seen::gone,
           "Box has not renamed " + op.subject.from_path + "; try again.");
  }
}

void verify_folder(operation& op, const exchange_summary& heard) {
  if (!leaves_open(op, heard.posts, {201})) return;
  op.certain = false;
  std::optional<item_stat> item;
  const seen now = look_for(op, op.subject.path, seen::there, item);
  if (now == seen::unknown) {
    op.result = not_known(op);
    return;
  }
  const bool done = now == seen::there && item->folder();
  settle(op, done, "Box has not made " + op.subject.path + "; try again.");
  if (done) op.text = op.subject.path;
}

/// Whether Box has the file, whole: by size, and by SHA-1 where both are known.
bool is_what_was_sent(operation& op, const std::optional<item_stat>& item, const exchange_summary& heard) {
  if (!item || item->folder() || item->size() != op.store->request().size) return false;
  const std::string sent = op.store->sha1(heard.commit_digest);
  const std::optional<std::string> stored = sha1_inside(op, op.subject.path);
  return sent.empty() || !stored || *stored == sent;
}

/// Whether Box's answer to a store has said what it has stored: the storage knows the file then, without asking.
bool was_told(operation& op, const request_fate& fate) {
  if (!op.result.ok() || (fate.status != 200 && fate.status != 201)) return false;
  std::optional<item_stat> item;
  const owned_result known = stat_inside(op, op.subject.path, item);
  return known.ok() && item && !item->folder() && item->size() == op.store->request().size;
}

void verify_store(operation& op, const exchange_summary& heard) {
  const bool in_the_way = heard.deletes.sent > 0 && heard.deletes.status != 200 && heard.deletes.status != 204;
  if (in_the_way && result_class(op.result.get()) == "PATH_EXISTS" && status_may_pass(heard.deletes.status)) {
    op.result = failure("TRY_AGAIN", "Box has not deleted the former " + op.subject.path + "; send the new one again.");
    return;
  }
  const request_fate& fate = heard.commit.sent > 0 ? heard.commit : heard.upload;
  if (fate.sent == 0) {
    const bool made_way = heard.deletes.doubtful && result_missing(op.result.get());
    if (op.result.ok() || made_way) op.result = failure("NOT_DONE", "Nothing was sent to Box; send it again.");
    return;
  }
  const bool refused_after_doubt = fate.sent > 1 && (fate.status == 404 || fate.status == 410);
  const bool open = leaves_open(op, fate, {}) || refused_after_doubt;
  if (!open || was_told(op, fate)) return;
  op.certain = false;
  std::optional<item_stat> item;
  const seen now = look_for(op, op.subject.path, seen::there, item);
  if (now == seen::unknown) {
    op.result = not_known(op);
  } else {
    settle(op, now == seen::there && is_what_was_sent(op, item, heard),
           "Box has not stored " + op.subject.path + " as it was sent; send it again.");
  }
}

/// Whether the failure says that something is not there, or is, though the listing that would know it failed.
bool missing_for_want_of_a_look(operation& op, const exchange_summary& heard) {
  const std::string_view word = result_class(op.result.get());
  const int status = heard.reads.status;
  if (heard.reads.sent == 0 || (!result_missing(op.result.get()) && word != "PATH_EXISTS")) return false;
  if (status == 0 || (status >= 400 && status != 404)) return true;
  if (word != "NOT_A_DIRECTORY" || !op.subject.adds) return false;
  // What a storage could not list it takes for no folder; what it has seen as one is, unless a file has the name
  // itself.
  std::optional<item_stat> above, taken;
  if (stat_inside(op, op.subject.path, taken).ok() && taken) return false;
  const owned_result known = stat_inside(op, path_parent(op.subject.path), above);
  return known.ok() ? above && above->folder() : !result_missing(known.get());
}

}  // namespace

void note_default_code(operation& op, const exchange_summary& heard) {
  // An answer that was lost makes what Box says to the repetition an effect of that.
  const bool passing = heard.last.doubtful || (heard.last.sent > 0 && status_may_pass(heard.last.status));
  op.default_code = passing ? 451 : 550;
}

void doubt_what_was_not_seen(operation& op, const exchange_summary& heard) {
  if (!op.result.ok() && missing_for_want_of_a_look(op, heard))
    op.result = failure("TRY_AGAIN", "Box could not be asked what is at " + op.subject.path + "; try again.");
}

void operation_verify(operation& op) {
  const exchange_summary heard = op.storage.exchanges().summary();
  note_default_code(op, heard);
  op.storage_failed = op.misused || !op.result.ok();
  op.certain = true;
  if (!op.finished || op.misused || !op.storage.exchanges().hears()) return;
  if (op.subject.removes)
    verify_removal(op, heard);
  else if (!op.subject.from_path.empty())
    verify_rename(op, heard);
  else if (op.store)
    verify_store(op, heard);
  else if (op.subject.adds)
    verify_folder(op, heard);
  // Found gone by the repetition of a deletion that may have been carried out.
  const bool found_gone = heard.deletes.doubtful && heard.deletes.status == 404;
  if (op.store && !op.result.ok() && (heard.deletes.status == 200 || heard.deletes.status == 204 || found_gone))
    op.remark = "The former " + op.subject.path + " is in the trash of Box.";
  doubt_what_was_not_seen(op, heard);
}

}  // namespace tarvex::server
