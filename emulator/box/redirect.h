#pragma once

#include <string_view>

namespace tarvex::emulator {

/// Whether a text can be the target of a redirect: scheme, "://" and more, printable ASCII, no fragment (RFC 6749,
/// 3.1.2).
[[nodiscard]] bool redirect_is_address(std::string_view text);

/// Whether an address is the registered one: letter for letter, but for the port where both are http on one and the
/// same loopback host (127.0.0.1, [::1], localhost), as RFC 8252, 7.3, has it. Both are addresses as above.
[[nodiscard]] bool redirect_matches(std::string_view registered, std::string_view given);

}  // namespace tarvex::emulator
