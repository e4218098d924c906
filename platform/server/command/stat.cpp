#include "command/stat.h"

#include "base/log.h"
#include "ftp/path.h"
#include "session/session_state.h"

#include <sys/stat.h>

namespace tarvex::server {

namespace {

/// Runs a stat inside the work of `op`, which answers for a misuse.
owned_result run_inside(operation& op, operation& inner, bool file_only) {
  tarvex_gfs_stat_info_t info{file_only, false, false, true, inner.path.c_str()};
  op.session.setup.storage->interface->stat_func(&inner, &info, op.session.storage.session);
  if (inner.finished && !inner.misused) return std::move(inner.result);
  op.misused = true;
  return owned_result(TARVEX_FAILURE);
}

}  // namespace

bool item_stat::folder() const {
  return S_ISDIR(stat.mode);
}

std::unique_ptr<operation> operation_make(session& session, operation_kind kind, std::string_view verb,
                                          const std::string& path) {
  auto op = std::make_unique<operation>(session, kind);
  op->verb = verb;
  op->path = path;
  return op;
}

void command_log_failure(const operation& op) {
  log_info("{}: {} {} failed: {}", session_who(op.session), op.verb, op.path, operation_failure_text(op));
}

std::optional<std::string> path_argument(session& session, std::string_view argument) {
  auto path = path_normalise(session.settings.directory, argument);
  if (!path) session_reply(session, 501, "This is no path: it is too long or holds control bytes.");
  return path;
}

owned_result stat_inside(operation& op, const std::string& path, std::optional<item_stat>& item) {
  const auto inner = operation_make(op.session, operation_kind::stat, op.verb, path);
  inner->batch = [&item](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    if (count > 0) item.emplace(item_stat{entries[0]});
  };
  owned_result result = run_inside(op, *inner, true);
  if (item) item->stat.name = item->stat.symlink_target = nullptr;
  return result;
}

owned_result list_inside(operation& op, const std::string& path) {
  return run_inside(op, *operation_make(op.session, operation_kind::stat, op.verb, path), false);
}

void stat_start(session& session, std::string_view verb, const std::string& path, stat_call found) {
  auto op = operation_make(session, operation_kind::stat, verb, path);
  const auto item = std::make_shared<std::optional<item_stat>>();
  op->work = [](operation& started) {
    tarvex_gfs_stat_info_t info{true, false, false, false, started.path.c_str()};
    started.session.setup.storage->interface->stat_func(&started, &info, started.session.storage.session);
  };
  op->rewind = [item](operation&) {
    item->reset();
    return true;
  };
  op->batch = [item](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    if (count < 1) return;
    item->emplace(item_stat{entries[0]});
    (*item)->stat.name = nullptr;
    (*item)->stat.symlink_target = nullptr;
  };
  op->done = [item, found = std::move(found)](operation& over) {
    if (!operation_succeeded(over) || over.cancelled) {
      command_log_failure(over);
      return over.session.control.send(operation_failure_reply(over));
    }
    if (!*item) return session_reply(over.session, 550, over.path + ": the storage gave no attributes.");
    found(over.session, **item);
  };
  operation_start(session, std::move(op));
}

void file_stat_start(session& session, std::string_view verb, const std::string& path, stat_call found) {
  stat_start(session, verb, path, [path, found = std::move(found)](server::session& of, const item_stat& item) {
    if (item.folder()) return session_reply(of, 550, path + ": not a file.");
    found(of, item);
  });
}

}  // namespace tarvex::server
