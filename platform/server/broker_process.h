#pragma once

#include "config/configuration.h"
#include "tarvex_common.hpp"

#include <string>

namespace tarvex::server {

/// Why the broker cannot be kept apart from the sessions as the configuration wants it; empty: it can.
/// \param warning  set when it is not kept apart, and need not be
[[nodiscard]] std::string broker_apart(const configuration& config, std::string& warning);

/// The broker's process: becomes the broker and does not come back. Reads the configuration anew, and goes by `config`
/// where that has mistakes by now.
/// \param file     of the configuration
/// \param control  its end of the connection to the listener
[[noreturn]] void broker_process_run(const std::string& file, const configuration& config, descriptor control);

}  // namespace tarvex::server
