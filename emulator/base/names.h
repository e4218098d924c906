#pragma once

#include <string>
#include <string_view>

namespace tarvex::emulator {

/// Why Box refuses a name: the error code, or an empty text for a good name.
/// Good are 1 to 255 characters without non-printable ASCII, '/' and '\', without a space at either end, not "." or
/// "..".
[[nodiscard]] std::string_view name_refusal(std::string_view utf8);

/// The form under which names are compared: without regard to case, over all of Unicode. Names that are equal in this
/// form cannot be together in one folder.
[[nodiscard]] std::string name_folded(std::string_view utf8);

}  // namespace tarvex::emulator
