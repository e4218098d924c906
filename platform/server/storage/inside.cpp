#include "storage/inside.h"

#include "ftp/path.h"

namespace tarvex::server {

namespace {

/// Runs a stat inside the work of `op`, which answers for a misuse.
owned_result run_inside(operation& op, operation& inner, bool file_only, void* session = nullptr) {
  tarvex_gfs_stat_info_t info{};
  info.file_only = file_only;
  info.internal = true;
  info.pathname = inner.subject.path.c_str();
  op.storage.interface()->stat_func(&inner, &info, session ? session : op.storage.handle());
  if (inner.finished && !inner.misused) return std::move(inner.result);
  op.misused = true;
  return owned_result(TARVEX_FAILURE);
}

}  // namespace

item_stat item_without_texts(const tarvex_gridftp_server_control_stat_t& stat) {
  item_stat item{stat};
  item.stat.name = item.stat.symlink_target = nullptr;
  return item;
}

owned_result stat_inside(operation& op, const std::string& path, std::optional<item_stat>& item, void* session) {
  operation inner(op.storage, operation_kind::stat, {.verb = op.subject.verb, .path = path});
  inner.batch = [&item](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    if (count > 0) item = item_without_texts(entries[0]);
  };
  return run_inside(op, inner, true, session);
}

owned_result list_inside(operation& op, const std::string& path) {
  operation inner(op.storage, operation_kind::stat, {.verb = op.subject.verb, .path = path});
  return run_inside(op, inner, false);
}

owned_result find_inside(operation& op, const std::string& path, std::optional<item_stat>& item) {
  const std::string name = path_base_name(path);
  operation inner(op.storage, operation_kind::stat, {.verb = op.subject.verb, .path = path_parent(path)});
  inner.batch = [&item, &name](const tarvex_gridftp_server_control_stat_t* entries, int count) {
    for (int i = 0; i < count; ++i)
      if (entries[i].name && name == entries[i].name) item = item_without_texts(entries[i]);
  };
  return run_inside(op, inner, false);
}

std::optional<std::string> sha1_inside(operation& op, const std::string& path) {
  if (!op.storage.computes("SHA1")) return std::nullopt;
  operation inner(op.storage, operation_kind::command, {.verb = op.subject.verb, .path = path});
  tarvex_gfs_command_info_t info{};
  info.command = TARVEX_GFS_CMD_CKSM;
  info.pathname = path.c_str();
  info.cksm_length = -1;
  info.cksm_alg = "SHA1";
  op.storage.interface()->command_func(&inner, &info, op.storage.handle());
  return inner.finished && !inner.misused && inner.result.ok() ? inner.text : std::nullopt;
}

void place_find(operation& op, storage_session::place& found) {
  found = {};
  owned_result result = stat_inside(op, path_parent(op.subject.path), found.parent);
  if (result.ok() && found.parent && found.parent->folder()) {
    result = stat_inside(op, op.subject.path, found.target);
    if (result_class(result.get()) == "PATH_NOT_FOUND") result = {};
  }
  (void)operation_complete(op, operation_kind::stat, result.release());
}

}  // namespace tarvex::server
