#pragma once

#include <string>

namespace tarvex::server {

/// Shows an address in the person's browser: $BROWSER (programs between colons, the first that can be run; "%s" in one
/// of its words stands for the address), else xdg-open. No shell sees the address. Does not wait for the browser, which
/// gets neither this program's input nor its output.
/// \return false: there is none to be run
[[nodiscard]] bool browser_open(const std::string& address);

}  // namespace tarvex::server
