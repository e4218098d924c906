#pragma once

#include <span>

#include "api/call.h"

namespace tarvex::emulator {

/// What a route asks for and counts as.
enum class route_kind { API, UPLOAD, PART, DOWNLOAD, OPEN };

/// One address. `pattern` is matched segment by segment: ":id" captures digits (other text answers 405), ":any"
/// captures any text.
struct route {
  std::string_view method;
  std::string_view pattern;
  route_kind kind;
  response (*handle)(call& of);
};

/// All addresses of the local Box.
[[nodiscard]] std::span<const route> routes();

/// Answers one request: journal, faults, token, rate limit, handler, usual headers. Throws connection_lost.
[[nodiscard]] response router_answer(box_state& box, request& in);

}  // namespace tarvex::emulator
