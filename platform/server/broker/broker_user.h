#pragma once

#include "config/configuration.h"

#include <string>

namespace tarvex::server {

/// Whom the broker's process becomes when it is started as root: its own user where there is one, else that of the
/// sessions, whose sandbox keeps them from its files then.
[[nodiscard]] std::string broker_user(const configuration& config);

}  // namespace tarvex::server
