#include "tarvex_common.h"

namespace {

constexpr tarvex_version_t version = {.major = 0, .minor = 26, .timestamp = 0, .branch_id = 0};

}  // namespace

// Nothing to set up: all that the library keeps is ready from the start of the process.
extern "C" const tarvex_module_descriptor_t tarvex_i_common_module = {.module_name = "tarvex_common",
                                                                      .activation_func = nullptr,
                                                                      .deactivation_func = nullptr,
                                                                      .atexit_func = nullptr,
                                                                      .get_pointer_func = nullptr,
                                                                      .version = &version,
                                                                      .friendly_error_func = nullptr};
