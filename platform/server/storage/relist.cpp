#include "storage/relist.h"

#include "base/log.h"
#include "ftp/path.h"
#include "storage/change_counters.h"
#include "storage/inside.h"
#include "storage/operation.h"
#include "storage/storage_session.h"
#include "storage/transfer.h"

namespace tarvex::server {

namespace {

constexpr std::size_t REMEMBERED_MAX = 10000;

enum class listing_outcome { listed, missing, failed };

/// Whether a failed operation was refused before it could change anything.
bool refused(const operation& op) {
  if (op.transfer && op.transfer->begun()) return false;
  const std::string_view word = result_class(op.result.get());
  return result_missing(op.result.get()) || word == "PATH_EXISTS" || word == "PERMISSION_DENIED" ||
         word == "INVALID_PATH_NAME" || word == "NOT_IMPLEMETED";
}

bool ended_well(const operation& op) {
  return op.finished && !op.misused && op.result.ok();
}

listing_outcome listing_outcome_of(const owned_result& result) {
  if (result.ok()) return listing_outcome::listed;
  return result_missing(result.get()) ? listing_outcome::missing : listing_outcome::failed;
}

/// Lists a folder. A file is not listed as one: in a storage that numbers the two apart another folder may answer.
listing_outcome list_again(operation& op, const std::string& folder) {
  std::optional<item_stat> item;
  const owned_result found = stat_inside(op, folder, item);
  if (!found.ok()) return listing_outcome_of(found);
  if (!item || !item->folder()) return listing_outcome::missing;
  return listing_outcome_of(list_inside(op, folder));
}

/// Lists the nearest folder above `path` that exists. \return whether one was listed.
bool list_above(operation& op, const std::string& path) {
  change_view& view = op.storage.others();
  for (std::string folder = path_parent(path);; folder = path_parent(folder)) {
    const std::uint64_t changes = view.changes();
    log_debug("{}: {} {}: {} is listed again", op.storage.who(), op.subject.verb, op.subject.path, folder);
    const listing_outcome outcome = list_again(op, folder);
    if (outcome == listing_outcome::failed || op.cancelled) return false;
    view.note_listed(folder, changes);
    if (outcome == listing_outcome::listed) return true;
    if (folder == "/") return false;
  }
}

/// Lists above one of the operation's paths when what the storage knows of it may be old. \return whether it did.
bool refresh_path(operation& op, const std::string& path, bool name_is_taken) {
  if (path.empty()) return false;
  change_view& view = op.storage.others();
  const std::string doubted = view.take_doubt(path);
  if (!doubted.empty()) return list_above(op, doubted);
  return (name_is_taken || view.outdated(path_parent(path))) && list_above(op, path);
}

/// Whether the operation failed for what the storage may not know, and knows now.
bool refresh(operation& op) {
  if (op.kind == operation_kind::session_start || !op.finished || op.misused || op.cancelled || op.result.ok())
    return false;
  const bool name_is_taken = op.subject.existing_may_be_new && result_class(op.result.get()) == "PATH_EXISTS";
  if (!name_is_taken && !result_missing(op.result.get())) return false;
  bool listed = refresh_path(op, op.subject.path, name_is_taken);
  listed = refresh_path(op, op.subject.from_path, false) || listed;
  return listed && !op.cancelled;
}

/// Tells what the operation means to others, and to what the storage takes for known.
void note_change(operation& op) {
  change_view& view = op.storage.others();
  const bool well = ended_well(op);
  const bool may_have_changed = op.subject.changes && (well || !refused(op));
  if (may_have_changed) view.raise();
  if (!well && (may_have_changed || (op.subject.removes && !result_missing(op.result.get()))))
    view.doubt(op.subject.path);
}

bool make_ready_again(operation& op) {
  if (op.rewind && !op.rewind()) return false;
  op.result = {};
  op.text.reset();
  op.finished = false;
  return true;
}

void run_and_note(operation& op) {
  change_view& view = op.storage.others();
  const std::uint64_t changes = view.changes();
  operation_work(op);
  if (refresh(op) && make_ready_again(op)) operation_work(op);
  if (op.subject.lists && ended_well(op)) view.note_listed(op.subject.path, changes);
  note_change(op);
}

}  // namespace

void change_view::open(change_counters* counters, std::string_view account) {
  counter_ = counters ? &change_counter(*counters, account) : nullptr;
  own_ = 0;
  opened_ = changes();
}

std::uint64_t change_view::changes() const {
  return counter_ ? *counter_ - own_ : 0;
}

bool change_view::outdated(const std::string& folder) const {
  const auto found = listed_.find(folder);
  return changes() != (found == listed_.end() ? opened_ : found->second);
}

void change_view::note_listed(const std::string& folder, std::uint64_t changes) {
  if (changes == opened_ && !listed_.contains(folder)) return;
  // What is forgotten counts as never listed: that costs a listing, not an item.
  if (listed_.size() >= REMEMBERED_MAX) listed_.clear();
  listed_[folder] = changes;
}

void change_view::raise() {
  if (!counter_) return;
  ++own_;
  ++*counter_;
}

void change_view::doubt(const std::string& path) {
  if (doubts_.size() < REMEMBERED_MAX) doubts_.insert(path);
}

std::string change_view::take_doubt(std::string_view path) {
  for (std::string item(path); !doubts_.empty() && item != "/"; item = path_parent(item)) {
    if (doubts_.erase(item) > 0) return item;
  }
  return {};
}

void operation_run(operation& op) noexcept {
  try {
    run_and_note(op);
  } catch (const std::exception& error) {
    log_error("{} {}: {}", op.subject.verb, op.subject.path, error.what());
    op.misused = true;
  }
}

}  // namespace tarvex::server
