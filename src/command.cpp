#include "trace.h"

namespace {

using handler_t = void (*)(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info, tarvex_box_session_t* box);

struct command_row {
  tarvex_gfs_command_type_t command;
  handler_t handler;
};

constexpr command_row COMMANDS[] = {
    {TARVEX_GFS_CMD_MKD, tarvex_i_box_mkdir},   {TARVEX_GFS_CMD_RMD, tarvex_i_box_delete},
    {TARVEX_GFS_CMD_DELE, tarvex_i_box_delete}, {TARVEX_GFS_CMD_SITE_RDEL, tarvex_i_box_delete},
    {TARVEX_GFS_CMD_RNTO, tarvex_i_box_rename}, {TARVEX_GFS_CMD_CKSM, tarvex_i_box_cksm},
};

void tarvex_l_box_refuse(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t*, tarvex_box_session_t*) {
  // The class word lacks a letter on purpose: clients know it so.
  const tarvex_result_t result =
      tarvex::box::guarded([] { return tarvex::box::error_ftp(500, "NOT_IMPLEMETED", nullptr); });
  tarvex_gridftp_server_finished_command(op, result, nullptr);
}

handler_t tarvex_l_box_handler(tarvex_gfs_command_type_t command) {
  for (const command_row& row : COMMANDS) {
    if (row.command == command) return row.handler;
  }
  return tarvex_l_box_refuse;
}

}  // namespace

extern "C" void tarvex_i_box_command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t* cmd_info, void* user_arg) {
  const tarvex::box::trace_scope scope;
  auto* const box = static_cast<tarvex_box_session_t*>(user_arg);
  const tarvex_result_t result = tarvex_box_token_refresh(box, op);
  if (result != TARVEX_SUCCESS) {
    tarvex::box::report_result(
        result, [&](tarvex_result_t failure) { tarvex_gridftp_server_finished_command(op, failure, nullptr); });
    return;
  }
  tarvex_l_box_handler(cmd_info->command)(op, cmd_info, box);
  scope.leave();
}
