// A storage plug-in whose exported names are what the loader has to tell apart.
#include "tarvex_gridftp_server.h"

namespace {

const tarvex_gfs_storage_iface_t STORAGE = {
    .init_func = [](tarvex_gfs_operation_t, tarvex_gfs_session_info_t*) {},
    .stat_func = [](tarvex_gfs_operation_t, tarvex_gfs_stat_info_t*, void*) {},
};
const tarvex_version_t VERSION = {.major = 0, .minor = 1, .timestamp = 0, .branch_id = 0};
const tarvex_version_t FOREIGN_VERSION = {.major = 9, .minor = 0, .timestamp = 0, .branch_id = 0};

}  // namespace

extern "C" {
TARVEX_API int tarvex_i_fake_level = 7;
TARVEX_API extern const int tarvex_i_fake_constant = 7;
TARVEX_API int tarvex_i_fake_ranged = 5;
TARVEX_API extern const int tarvex_i_fake_ranged_min = 1;
TARVEX_API extern const int tarvex_i_fake_ranged_max = 9;
TARVEX_API long tarvex_i_fake_wide = 7;
TARVEX_API int tarvex_i_fake_pair[2] = {7, 7};
TARVEX_API void tarvex_i_fake_function() {}

TARVEX_API extern const tarvex_module_descriptor_t tarvex_gridftp_server_fake_module = {
    .module_name = "fake",
    .activation_func =
        [] {
          if (tarvex_i_fake_level < 0) return 1;
          return tarvex_extension_registry_add(&tarvex_i_gfs_dsi_registry, "fake", nullptr, &STORAGE);
        },
    .deactivation_func = [] { return tarvex_extension_registry_remove(&tarvex_i_gfs_dsi_registry, "fake"); },
    .version = &VERSION,
};
TARVEX_API extern const tarvex_module_descriptor_t tarvex_gridftp_server_foreign_module = {.module_name = "foreign",
                                                                                           .version = &FOREIGN_VERSION};
}
