#pragma once

#include "base/json.h"
#include "http/message.h"

#include <string>
#include <string_view>

namespace tarvex::emulator {

/// An answer with a JSON body.
[[nodiscard]] response response_json(unsigned status, const json_t* body);

/// Ends a handler early with a Box error answer; the router sends it.
struct problem {
  response answer;
};

/// Box's error body in full form, for one of Box's codes, which fixes the status. An empty message takes the usual one.
/// `context` becomes `context_info`; null: none.
[[nodiscard]] problem box_problem(std::string_view code, std::string_view message = {}, json_ptr context = nullptr);

/// The short form without `type` and `status`, as the metadata service writes it.
[[nodiscard]] problem short_problem(unsigned status, std::string_view code, std::string_view message);

/// 404 `not_found`; `name` is the kind of the missing thing ("item", "folder", "parent"), `value` its typed id.
[[nodiscard]] problem not_found_problem(std::string_view name, std::string_view value);

/// 401 with its header and an empty body.
[[nodiscard]] problem unauthorised_problem(bool had_token);

/// Throws 400 bad_request with a message where a condition does not hold.
void require(bool condition, std::string_view message);

}  // namespace tarvex::emulator
