#include "storage/callbacks_guard.h"
#include "storage/operation.h"
#include "tarvex_gridftp_server.h"

using tarvex::server::guard_result;
using tarvex::server::operation_complete;
using tarvex::server::operation_kind;

namespace {

bool takes_entries(const tarvex_gfs_operation_s& op) {
  return op.kind == operation_kind::stat && !op.finished && !op.cancelled && op.batch != nullptr;
}

}  // namespace

void tarvex_gridftp_server_finished_stat_partial(tarvex_gfs_operation_t op, tarvex_result_t result,
                                                 tarvex_gridftp_server_control_stat_t* stat_array, int stat_count) {
  const tarvex::owned_result owned(result);
  const tarvex_result_t outcome = guard_result([&]() -> tarvex_result_t {
    if (owned.ok() && takes_entries(*op)) op->batch(stat_array, stat_array ? stat_count : 0);
    return TARVEX_SUCCESS;
  });
  if (outcome != TARVEX_SUCCESS) op->misused = true;  // a batch is missing: the listing may not look complete
}

void tarvex_gridftp_server_finished_stat(tarvex_gfs_operation_t op, tarvex_result_t result,
                                         tarvex_gridftp_server_control_stat_t* stat_array, int stat_count) {
  if (result == TARVEX_SUCCESS) tarvex_gridftp_server_finished_stat_partial(op, result, stat_array, stat_count);
  (void)operation_complete(*op, operation_kind::stat, result);
}
