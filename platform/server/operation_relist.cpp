#include "operation_relist.h"

#include "change_counters.h"
#include "log.h"
#include "operation.h"
#include "path.h"
#include "session_state.h"
#include "transfer.h"

#include <sys/stat.h>

namespace tarvex::server {

namespace {

constexpr std::size_t REMEMBERED_FOLDERS_MAX = 10000;

enum class listing_outcome { listed, missing, failed };

std::string_view error_class(const operation& op) {
  const char* const word = tarvex_gfs_ftp_response_error_class(tarvex_error_peek(op.result.get()));
  return word ? word : "";
}

bool says_missing(const operation& op) {
  const std::string_view word = error_class(op);
  return word == "PATH_NOT_FOUND" || word == "NOT_A_DIRECTORY";
}

/// Whether a failed operation was refused before it could change anything.
bool refused(const operation& op) {
  if (op.transfer && op.transfer->begun()) return false;
  const std::string_view word = error_class(op);
  return says_missing(op) || word == "PATH_EXISTS" || word == "PERMISSION_DENIED" || word == "INVALID_PATH_NAME" ||
         word == "NOT_IMPLEMETED";
}

bool ended_well(const operation& op) {
  return op.finished && !op.misused && op.result.ok();
}

/// A stat for the server's own ends.
listing_outcome stat_inside(operation& op, const std::string& path, bool file_only) {
  session& session = op.session;
  operation inner(session, operation_kind::stat);
  inner.verb = "relist";
  inner.path = path;
  bool folder = !file_only;
  inner.batch = [&](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    if (file_only && count > 0) folder = S_ISDIR(entries[0].mode);
  };
  tarvex_gfs_stat_info_t info{file_only, false, false, true, inner.path.c_str()};
  session.setup.storage->interface->stat_func(&inner, &info, session.storage.session);
  if (ended_well(inner)) return folder ? listing_outcome::listed : listing_outcome::missing;
  return says_missing(inner) ? listing_outcome::missing : listing_outcome::failed;
}

/// Lists a folder. A file is not listed as one: in a storage that numbers the two apart another folder may answer.
listing_outcome list_again(operation& op, const std::string& folder) {
  const listing_outcome found = stat_inside(op, folder, true);
  return found == listing_outcome::listed ? stat_inside(op, folder, false) : found;
}

/// Lists the nearest folder above `path` that exists. \return whether one was listed.
bool list_above(operation& op, const std::string& path) {
  change_view& view = op.session.others;
  for (std::string folder = path_parent(path);; folder = path_parent(folder)) {
    const std::uint64_t changes = view.changes();
    const listing_outcome outcome = list_again(op, folder);
    if (outcome == listing_outcome::failed || op.cancelled) return false;
    view.note_listed(folder, changes);
    if (outcome == listing_outcome::listed) return true;
    if (folder == "/") return false;
  }
}

bool path_outdated(const operation& op, const std::string& path) {
  return !path.empty() && op.session.others.outdated(path_parent(path));
}

/// Whether the operation failed for what the storage did not know.
bool out_of_date(const operation& op) {
  if (op.kind == operation_kind::session_start || !op.finished || op.misused || op.cancelled || op.result.ok())
    return false;
  if (op.existing_may_be_new && error_class(op) == "PATH_EXISTS") return true;
  return says_missing(op) && (path_outdated(op, op.path) || path_outdated(op, op.from_path));
}

/// \return whether something was listed.
bool list_folders_again(operation& op) {
  log_debug("%s: %s %s: others have changed something; its folders are listed again", session_who(op.session).c_str(),
            op.verb.c_str(), op.path.c_str());
  bool listed = list_above(op, op.path);
  if (!op.from_path.empty() && path_parent(op.from_path) != path_parent(op.path))
    listed = list_above(op, op.from_path) || listed;
  return listed && !op.cancelled;
}

bool make_ready_again(operation& op) {
  if (op.rewind && !op.rewind(op)) return false;
  op.result = {};
  op.text.reset();
  op.finished = false;
  return true;
}

void run_and_note(operation& op, void (*run)(operation& op) noexcept) {
  change_view& view = op.session.others;
  const std::uint64_t changes = view.changes();
  run(op);
  if (out_of_date(op) && list_folders_again(op) && make_ready_again(op)) run(op);
  if (op.lists && ended_well(op)) view.note_listed(op.path, changes);
  if (op.changes && (ended_well(op) || !refused(op))) view.raise();
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
  // What is forgotten costs a listing, never an item.
  if (listed_.size() >= REMEMBERED_FOLDERS_MAX) listed_.clear();
  listed_[folder] = changes;
}

void change_view::raise() {
  if (!counter_) return;
  ++own_;
  ++*counter_;
}

void operation_run(operation& op, void (*run)(operation& op) noexcept) noexcept {
  try {
    run_and_note(op, run);
  } catch (const std::exception& error) {
    log_error("%s %s: %s", op.verb.c_str(), op.path.c_str(), error.what());
    op.misused = true;
  }
}

}  // namespace tarvex::server
