// A storage plug-in whose exported names are what the loader has to tell apart.
#include "tarvex_gridftp_server.h"

TARVEX_API int tarvex_i_fake_level = 7;
TARVEX_API const int tarvex_i_fake_constant = 7;
TARVEX_API long tarvex_i_fake_wide = 7;
TARVEX_API int tarvex_i_fake_pair[2] = {7, 7};
TARVEX_API void tarvex_i_fake_function(void) {}

static void start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t* info) {
  (void)op;
  (void)info;
}

static void stat_item(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t* info, void* session) {
  (void)op;
  (void)info;
  (void)session;
}

static const tarvex_gfs_storage_iface_t interface = {.init_func = start, .stat_func = stat_item};

static int activate(void) {
  if (tarvex_i_fake_level < 0) return 1;
  return tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "fake", NULL, &interface);
}

static int deactivate(void) {
  return tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "fake");
}

static const tarvex_version_t version = {.major = 0, .minor = 1};
static const tarvex_version_t foreign_version = {.major = 9};

TARVEX_API const tarvex_module_descriptor_t tarvex_gridftp_server_fake_module = {
    .module_name = "fake", .activation_func = activate, .deactivation_func = deactivate, .version = &version};
TARVEX_API const tarvex_module_descriptor_t tarvex_gridftp_server_foreign_module = {.module_name = "foreign",
                                                                                    .version = &foreign_version};
