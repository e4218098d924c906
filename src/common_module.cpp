#include "base_url.h"
#include "tarvex_common.hpp"
#include "trace.h"

#include <cstdio>

namespace {

int tarvex_l_box_common_activate() {
  const int result = tarvex_module_activate(&tarvex_i_common_module);
  if (result == 0) {
    tarvex_debug_init("TARVEX_BOX_DEBUG", "TRACE DEBUG INFO WARN ERROR", &tarvex_i_TARVEX_BOX_debug_handle);
  }
  tarvex::box::base_urls_read();
  (void)tarvex_module_activate(&tarvex_i_dsi_rest_module);  // its failure shows in the first request
  return result;
}

int tarvex_l_box_common_deactivate() {
  (void)tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
  (void)tarvex_module_deactivate(&tarvex_i_common_module);
  tarvex_debug_handle_t& handle = tarvex_i_TARVEX_BOX_debug_handle;
  if (handle.using_file && handle.file != nullptr) (void)std::fclose(handle.file);
  handle.file = nullptr;
  return 0;
}

}  // namespace

const tarvex_module_descriptor_t tarvex_i_box_common_module = {
    .module_name = "tarvex_box_common",
    .activation_func = tarvex_l_box_common_activate,
    .deactivation_func = tarvex_l_box_common_deactivate,
    .atexit_func = nullptr,
    .get_pointer_func = nullptr,
    .version = &tarvex::PROJECT_VERSION,
    .friendly_error_func = nullptr,
};
