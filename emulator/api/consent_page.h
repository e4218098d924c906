#pragma once

#include "http/message.h"

#include <string_view>

namespace tarvex::emulator {

/// The page on which a person signs in and lets an app in. All texts are escaped here.
///
/// Its elements have ids, for browsers that are driven by a program: fields `login` and `password`, buttons `grant` and
/// `deny`, and `error` with what was wrong before, where something was. There is no script on it, and the form goes
/// back to the address that it came from, query included.
struct consent_view {
  unsigned status = 200;
  std::string_view app;    // the name of who asks
  std::string_view login;  // what stands in the field
  std::string_view error;  // empty: none
};

/// No field of the form is longer, in bytes.
inline constexpr std::size_t MAX_FIELD_BYTES = 320;

[[nodiscard]] response consent_page(const consent_view& view);

/// For what cannot be sent back to the app, as nobody knows that it is the app's address: a page with one line in the
/// element `error`.
[[nodiscard]] response sign_in_error_page(unsigned status, std::string_view why);

}  // namespace tarvex::emulator
