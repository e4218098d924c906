#include "tarvex_box_common.h"
#include "tarvex_common.hpp"

namespace {

constexpr tarvex_gfs_storage_iface_t INTERFACE = {
    .descriptor = TARVEX_GFS_DSI_BLOCKS | TARVEX_GFS_DSI_SENDS | TARVEX_GFS_DSI_ORDERED_DATA |
                  TARVEX_GFS_DSI_PARTIAL_STAT | TARVEX_GFS_DSI_EXACT_PATHS,
    .init_func = tarvex_i_box_start,
    .destroy_func = tarvex_i_box_destroy,
    .list_func = nullptr,
    .send_func = tarvex_i_box_send,
    .recv_func = tarvex_i_box_recv,
    .trev_func = nullptr,
    .active_func = nullptr,
    .passive_func = nullptr,
    .data_destroy_func = nullptr,
    .command_func = tarvex_i_box_command,
    .stat_func = tarvex_i_box_stat,
    .set_cred_func = nullptr,
    .buffer_send_func = nullptr,
    .realpath_func = nullptr,
};
static_assert(INTERFACE.descriptor == 0x6b);

int tarvex_l_box_activate() {
  // Neither failure keeps the server from loading the plug-in: the first login reports what does not work.
  (void)tarvex_module_activate(&tarvex_i_box_common_module);
  (void)tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "box", &tarvex_gridftp_server_box_module, &INTERFACE);
  return 0;
}

int tarvex_l_box_deactivate() {
  (void)tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "box");
  (void)tarvex_module_deactivate(&tarvex_i_box_common_module);
  return 0;
}

}  // namespace

const tarvex_module_descriptor_t tarvex_gridftp_server_box_module = {
    .module_name = "tarvex_gridftp_server_box",
    .activation_func = tarvex_l_box_activate,
    .deactivation_func = tarvex_l_box_deactivate,
    .atexit_func = nullptr,
    .get_pointer_func = nullptr,
    .version = &tarvex::PROJECT_VERSION,
    .friendly_error_func = nullptr,
};
