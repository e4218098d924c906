#pragma once

#include "api/call.h"
#include "box/app.h"

#include <string>
#include <string_view>

namespace tarvex::emulator {

/// For whom an assertion asks: "user" or "enterprise", and the id.
struct assertion_subject {
  std::string type;
  std::string id;
};

/// Checks a JWT bearer assertion (RFC 7523; Box's claims): signed by a key of the client's with RS256, RS384 or RS512,
/// for this token address, new, and short-lived. Throws `invalid_grant`, which names the claim that is wrong. Inside a
/// transaction, in which the assertion's id is spent.
[[nodiscard]] assertion_subject assertion_check(const call& of, const app& client, std::string_view assertion);

}  // namespace tarvex::emulator
