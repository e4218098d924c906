#include "trace.h"

#include <array>
#include <cstdlib>
#include <string>

using tarvex::box::trace_exit;

namespace {

using stat_entry = tarvex_gridftp_server_control_stat_t;

constexpr int BATCH_SIZE = 100;

/// A batch of a listing, and the names in it.
struct stat_batch {
  std::array<stat_entry, BATCH_SIZE> entries{};
  tarvex_box_stat_state_t state{};

  stat_batch(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info) {
    state = {.op = op, .stat_info = stat_info, .stat_array = entries.data(), .stat_count = 0};
  }
  stat_batch(const stat_batch&) = delete;
  stat_batch& operator=(const stat_batch&) = delete;
  ~stat_batch();
};

/// Releases the names of a batch that the framework has taken, last first, and starts the next.
void tarvex_l_box_names_release(tarvex_box_stat_state_t& state) {
  while (state.stat_count > 0) {
    stat_entry& entry = state.stat_array[--state.stat_count];
    std::free(entry.name);
    entry.name = nullptr;
  }
}

stat_batch::~stat_batch() {
  tarvex_l_box_names_release(state);
}

tarvex_result_t tarvex_l_box_entry_add(tarvex_box_session_t* box, const tarvex_box_path_info_t* path_info,
                                       tarvex_box_stat_state_t& state) {
  stat_entry& entry = state.stat_array[state.stat_count];
  if (const tarvex_result_t result = tarvex_box_info_to_stat(box, path_info, &entry); result != TARVEX_SUCCESS) {
    return result;
  }
  if (entry.name == nullptr) return tarvex::box::error_memory();
  ++state.stat_count;
  return TARVEX_SUCCESS;
}

/// The folder itself under the name ".", then its items.
tarvex_result_t tarvex_l_box_list(tarvex_box_session_t* box, tarvex_box_stat_state_t& state) {
  const char* const pathname = state.stat_info->pathname;
  tarvex_box_path_info_t* folder = nullptr;
  tarvex_result_t result = tarvex_box_path_resolve(box, pathname, &folder, nullptr);
  if (result == TARVEX_SUCCESS) result = tarvex_l_box_entry_add(box, folder, state);
  if (result != TARVEX_SUCCESS) return result;
  char* const name = state.stat_array[0].name;
  name[0] = '.';
  if (name[1] != '\0') name[1] = '\0';
  result = tarvex_box_get_folder_items(box, folder->id, pathname, tarvex_box_stat_entry, &state);
  if (result == TARVEX_SUCCESS) folder->listed = true;
  return result;
}

tarvex_result_t tarvex_l_box_single(tarvex_box_session_t* box, const char* pathname, stat_entry& entry) {
  tarvex_box_path_info_t* item = nullptr;
  const tarvex_result_t result = tarvex_box_path_resolve(box, pathname, &item, nullptr);
  return result == TARVEX_SUCCESS ? tarvex_box_info_to_stat(box, item, &entry) : result;
}

tarvex_result_t tarvex_l_box_entry(tarvex_box_session_t* box, const tarvex_box_path_info_t* path_info,
                                   tarvex_box_stat_state_t& state) {
  if (path_info->type == TARVEX_BOX_UNKNOWN) return TARVEX_SUCCESS;
  const tarvex_result_t result = tarvex_l_box_entry_add(box, path_info, state);
  if (result != TARVEX_SUCCESS || state.stat_count < BATCH_SIZE) return result;
  tarvex_gridftp_server_finished_stat_partial(state.op, TARVEX_SUCCESS, state.stat_array, BATCH_SIZE);
  tarvex_l_box_names_release(state);
  return TARVEX_SUCCESS;
}

}  // namespace

extern "C" {

void tarvex_i_box_stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info, void* user_arg) {
  const tarvex::box::trace_scope scope;
  auto* const box = static_cast<tarvex_box_session_t*>(user_arg);
  const tarvex_result_t result = tarvex_box_token_refresh(box, op);
  if (result != TARVEX_SUCCESS) {
    tarvex::box::report_result(
        result, [&](tarvex_result_t failure) { tarvex_gridftp_server_finished_stat(op, failure, nullptr, 0); });
    return;
  }
  (stat_info->file_only ? tarvex_i_box_stat_single : tarvex_i_box_stat_multi)(op, stat_info, box);
  scope.leave();
}

void tarvex_i_box_stat_single(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info, tarvex_box_session_t* box) {
  stat_entry entry{};
  tarvex::box::reported([&] { return tarvex_l_box_single(box, stat_info->pathname, entry); },
                        // One entry also on failure, on purpose.
                        [&](tarvex_result_t result) { tarvex_gridftp_server_finished_stat(op, result, &entry, 1); });
  std::free(entry.name);
}

void tarvex_i_box_stat_multi(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* stat_info, tarvex_box_session_t* box) {
  stat_batch batch(op, stat_info);
  tarvex::box::reported([&] { return tarvex_l_box_list(box, batch.state); },
                        [&](tarvex_result_t result) {
                          tarvex_gridftp_server_finished_stat(op, result, batch.entries.data(), batch.state.stat_count);
                        });
}

tarvex_result_t tarvex_box_stat_entry(tarvex_box_session_t* box, const char*, tarvex_box_path_info_t* path_info,
                                      void* callback_arg) {
  return tarvex::box::traced(
      [&] { return tarvex_l_box_entry(box, path_info, *static_cast<tarvex_box_stat_state_t*>(callback_arg)); });
}

}  // extern "C"
