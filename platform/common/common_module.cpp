#include "tarvex_common.hpp"

// Nothing to set up: all that the library keeps is ready from the start of the process.
extern "C" const tarvex_module_descriptor_t tarvex_i_common_module = {.module_name = "tarvex_common",
                                                                      .activation_func = nullptr,
                                                                      .deactivation_func = nullptr,
                                                                      .atexit_func = nullptr,
                                                                      .get_pointer_func = nullptr,
                                                                      .version = &tarvex::PROJECT_VERSION,
                                                                      .friendly_error_func = nullptr};
