#include "storage/callbacks_guard.h"
#include "storage/operation.h"
#include "storage/storage_session.h"
#include "tarvex_gridftp_server.h"

using tarvex::server::guard_result;
using tarvex::server::operation_complete;
using tarvex::server::operation_kind;

void tarvex_gridftp_server_get_update_interval(tarvex_gfs_operation_t op, int* seconds) {
  *seconds = op->progress ? static_cast<int>(op->storage.config().update_interval_s) : 0;
}

void tarvex_gridftp_server_intermediate_command(tarvex_gfs_operation_t op, tarvex_result_t result, const char* text) {
  const tarvex::owned_result owned(result);
  if (!owned.ok() || !text || op->kind != operation_kind::command || !op->progress || op->finished) return;
  (void)guard_result([&]() -> tarvex_result_t {
    op->storage.loop().post([say = op->progress, line = std::string(text)] { say(line); });
    return TARVEX_SUCCESS;
  });
}

void tarvex_gridftp_server_finished_command(tarvex_gfs_operation_t op, tarvex_result_t result, const char* text) {
  (void)guard_result([&]() -> tarvex_result_t {
    if (operation_complete(*op, operation_kind::command, result) && text) op->text = text;
    return TARVEX_SUCCESS;
  });
}
