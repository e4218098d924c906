#include "shared_file.h"
#include "tarvex_box_common.h"

#include <fcntl.h>

// State file: id (128 bytes), num_parts (4), padding (4), part_size (8), total_size (8), md5_ctx (92), sha1_ctx (96),
// name (4096), padding (4), native byte order.
static_assert(sizeof(tarvex_box_upload_state_shared_s) == 4440 &&
              offsetof(tarvex_box_upload_state_shared_s, md5_ctx) == 152 &&
              offsetof(tarvex_box_upload_state_shared_s, sha1_ctx) == 244 &&
              offsetof(tarvex_box_upload_state_shared_s, name) == 340 &&
              offsetof(tarvex_box_upload_state_shared_s, part_array) == 4436);

namespace {

/// What is mapped while the file is made, and, on purpose, all that is unmapped at the end.
constexpr size_t PROBE_SIZE = 16;

constexpr tarvex::box::shared_file_kind STATE_FILE = {
    .size = sizeof(tarvex_box_upload_state_shared_s), .prepared_size = PROBE_SIZE, .prepare = nullptr};

}  // namespace

extern "C" {

void tarvex_i_box_upload_state_create(const char* name, tarvex_box_upload_state_t* upload_state) {
  const tarvex::box::shared_file file = tarvex::box::shared_file_open(tarvex_i_box_upload_path, name, STATE_FILE);
  *upload_state = {.is = true, .fd = file.fd, .shared = static_cast<tarvex_box_upload_state_shared_s*>(file.start)};
}

tarvex_result_t tarvex_i_box_upload_state_lock(tarvex_box_upload_state_t* upload_state, bool blocking) {
  return tarvex::box::shared_file_lock_result(upload_state->fd, F_WRLCK, blocking);
}

tarvex_result_t tarvex_i_box_upload_state_unlock(tarvex_box_upload_state_t* upload_state) {
  return tarvex::box::shared_file_lock_result(upload_state->fd, F_UNLCK, false);
}

void tarvex_i_box_upload_state_destroy(tarvex_box_upload_state_t* upload_state) {
  tarvex::box::shared_file file = {.fd = upload_state->fd, .start = upload_state->shared};
  tarvex::box::shared_file_close(file, PROBE_SIZE);
  upload_state->fd = file.fd;
  upload_state->shared = nullptr;
}

}  // extern "C"
