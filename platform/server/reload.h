#pragma once

#include "config/accounts.h"
#include "config/configuration.h"

#include <string>
#include <vector>

namespace tarvex::server {

/// Reads the configuration and all that it names. \return every mistake in it; then nothing of it is to be used.
[[nodiscard]] std::vector<configuration_mistake> configuration_read(const std::string& file, configuration& config,
                                                                    account_map& accounts);

/// Keeps those values of a configuration that is in force which only a restart can change.
/// \return their keys ("listen in [server]") where `fresh` had others.
std::vector<std::string> keep_until_restart(const configuration& in_force, configuration& fresh);

}  // namespace tarvex::server
