#pragma once

#include "config/configuration.h"

#include <string>
#include <vector>

namespace tarvex::server {

/// Keeps those values of a configuration that is in force which only a restart can change.
/// \return their keys ("listen in [server]") where `fresh` had others.
std::vector<std::string> keep_until_restart(const configuration& in_force, configuration& fresh);

}  // namespace tarvex::server
