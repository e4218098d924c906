#include "storage/operation_prepare.h"

#include "base/log.h"
#include "ftp/path.h"
#include "storage/inside.h"
#include "storage/storage_session.h"

#include <vector>

namespace tarvex::server {

namespace {

/// The path's folders from the top down, without the account's root; the path itself comes last.
std::vector<std::string> path_steps(const operation& op, const std::string& path) {
  std::vector<std::string> steps;
  const std::string& root = op.storage.root().path();
  if (path.size() <= root.size()) return steps;
  const std::size_t first = root.size() > 1 ? root.size() + 1 : 1;
  for (std::size_t slash = path.find('/', first); slash != std::string::npos; slash = path.find('/', slash + 1))
    steps.push_back(path.substr(0, slash));
  steps.push_back(path);
  return steps;
}

void end_with(operation& op, owned_result result) {
  op.result = std::move(result);
  op.finished = true;
}

owned_result not_a_path(const std::string& path) {
  return owned_result(tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
      nullptr, nullptr, 550, "PATH_NOT_FOUND", "GridFTP-Path: %s", path_quoted(path).c_str())));
}

/// Lists a folder. A file is not listed as one.
owned_result list_folder(operation& op, const std::string& folder) {
  std::optional<item_stat> item;
  owned_result found = stat_inside(op, folder, item);
  if (!found.ok()) return found;
  if (!item || !item->folder()) return not_a_path(folder);
  change_view& view = op.storage.others();
  const std::uint64_t when = view.now();
  log_debug("{}: {} {}: {} is listed again", op.storage.who(), op.subject.verb, operation_path(op),
            op.storage.root().to_client(folder));
  owned_result listed = list_inside(op, folder);
  if (listed.ok()) view.note_listed(folder, when);
  return listed;
}

/// \return false when the path leads through a file, or cannot be looked at: the operation is over then. What is
/// missing is the work's to say.
bool leads_through_folders(operation& op, const std::string& path) {
  std::vector<std::string> steps = path_steps(op, path);
  if (!steps.empty()) steps.pop_back();
  if (!op.storage.root().is_top()) steps.insert(steps.begin(), op.storage.root().path());
  for (const std::string& step : steps) {
    std::optional<item_stat> item;
    owned_result found = stat_inside(op, step, item);
    if (!found.ok() && result_missing(found.get())) return true;
    if (found.ok() && item && !item->folder()) found = not_a_path(path);
    if (found.ok()) continue;
    end_with(op, std::move(found));
    return false;
  }
  return true;
}

/// \return whether a folder was listed; a failure ends the operation.
bool list_additions(operation& op, const std::string& path, bool& failed) {
  bool listed = false;
  for (const std::string& step : path_steps(op, path)) {
    if (!op.storage.others().addition_unseen(step)) continue;
    owned_result outcome = list_folder(op, path_parent(step));
    if (!outcome.ok() && result_missing(outcome.get())) break;
    if (!outcome.ok()) {
      end_with(op, std::move(outcome));
      failed = true;
      return false;
    }
    listed = true;
  }
  return listed;
}

}  // namespace

bool operation_prepare(operation& op) {
  const operation_subject& about = op.subject;
  const change_view& view = op.storage.others();
  if (op.storage.token_refused() || view.stale(about.path) ||
      (!about.from_path.empty() && view.stale(about.from_path))) {
    owned_result renewed = op.storage.renew_inside(op);
    if (!renewed.ok()) {
      end_with(op, std::move(renewed));
      return false;
    }
  }
  if (about.adds && view.addition_unseen(about.path)) {
    owned_result listed = list_folder(op, path_parent(about.path));
    if (!listed.ok() && !result_missing(listed.get())) {
      end_with(op, std::move(listed));
      return false;
    }
  }
  if (!leads_through_folders(op, about.path)) return false;
  if (about.from_path.empty()) return true;
  if (!leads_through_folders(op, about.from_path)) return false;
  std::optional<item_stat> moved;
  if (stat_inside(op, about.from_path, moved).ok() && moved) op.moves_folder = moved->folder();
  return true;
}

bool operation_learn(operation& op) {
  if (!op.finished || op.misused || op.cancelled || op.result.ok()) return false;
  const bool name_is_taken = op.subject.existing_may_be_new && result_class(op.result.get()) == "PATH_EXISTS";
  if (!name_is_taken && !result_missing(op.result.get())) return false;
  bool failed = false;
  bool listed = list_additions(op, op.subject.path, failed);
  // That the name is taken is news to the storage, whatever was entered: its own entry may have come last.
  if (name_is_taken && !listed && !failed) listed = list_folder(op, path_parent(op.subject.path)).ok();
  if (!failed && !op.subject.from_path.empty()) listed = list_additions(op, op.subject.from_path, failed) || listed;
  return listed && !failed && !op.cancelled;
}

}  // namespace tarvex::server
