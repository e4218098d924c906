#pragma once

#include "account/redirect_listener.h"
#include "base/secret.h"
#include "config/configuration.h"

#include <memory>
#include <string>

namespace tarvex::server {

/// A person's consent, given on Box's page.
struct consent {
  secret code;
  std::string redirect;                        ///< the address that the question named
  std::unique_ptr<redirect_listener> browser;  ///< waits for a page; null: the address was pasted
};

/// Sends the person to Box's consent page and waits for the answer. Throws account_failure, when the person said no
/// too.
/// \param with_browser  opens a browser on this host, and prints the address for others; else prints the address alone
///                      on a line and reads where that led from standard input
[[nodiscard]] consent ask_for_consent(const configuration& config, bool with_browser);

/// What may help with a refusal of Box, to follow it; empty: nothing is known.
[[nodiscard]] std::string refusal_hint(const std::string& reason);

}  // namespace tarvex::server
