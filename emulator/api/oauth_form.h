#pragma once

#include "api/call.h"
#include "base/text.h"
#include "box/app.h"
#include "traffic/problem.h"

#include <cstddef>
#include <string_view>

namespace tarvex::emulator {

/// No form of a sign-in is longer; a JWT assertion takes about one KiB.
inline constexpr std::size_t MAX_FORM_BYTES = 64UL * 1024;

/// 400 in the form of RFC 6749, 5.2.
[[nodiscard]] problem oauth_problem(std::string_view error, std::string_view description);

/// The form of a request, with client id and secret from an Authorization header, where RFC 6749 (2.3.1) allows them,
/// too. Notes a grant_type in the journal. Throws problem 413.
[[nodiscard]] pair_list oauth_form(call& of);

/// The app whose client id and secret came. Throws `invalid_client`.
[[nodiscard]] app oauth_client(const call& of, const pair_list& form);

}  // namespace tarvex::emulator
