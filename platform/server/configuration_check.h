#pragma once

#include "config/configuration.h"

#include <functional>
#include <string>
#include <vector>

namespace tarvex::server {

/// What is wrong with the configuration and with all that it names.
struct configuration_findings {
  std::vector<configuration_mistake> mistakes;          ///< with one of them nothing of it is to be used
  std::vector<configuration_mistake> account_mistakes;  ///< each closes one account
  std::vector<std::string> warnings;                    ///< of what may be meant so
};

/// Reads the configuration and all that it names.
[[nodiscard]] configuration_findings configuration_find_mistakes(const std::string& file);

/// The same in a process of its own, which hands over what it found to `tell` and returns what that says: password
/// hashes and keys are read on the way, and nothing of them is to lie in memory that sessions inherit.
/// \return what `tell` said; false when there is no process to be had.
[[nodiscard]] bool configuration_check_apart(const std::string& file,
                                             const std::function<bool(const configuration_findings& found)>& tell);

}  // namespace tarvex::server
