#pragma once

#include "api/call.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarvex::emulator {

/// What an address is for: its rights, its limits, its headers and its delays follow from this.
enum class route_purpose {
  API,       // the content API; also what is no address at all
  UPLOAD,    // makes a file or opens an upload session
  PART,      // one part of an upload session
  DOWNLOAD,  // the download host: no token, no JSON, no limit
  SIGN_IN,   // OAuth: no token
};

/// One address. `pattern` is matched segment by segment: ":id" captures digits (other text answers 405), ":any"
/// captures any text.
struct route {
  std::string_view method;
  std::string_view pattern;
  route_purpose purpose;
  response (*handle)(call& of);
  bool whole_account = false;  // not for tokens that are limited by scopes
};

/// All addresses of the local Box.
[[nodiscard]] std::span<const route> routes();

/// Where a request goes.
struct route_found {
  const route* to = nullptr;  // null: nowhere
  route_purpose purpose = route_purpose::API;
  bool known_address = false;  // the address is one, though for another method or with an id of a wrong form
  std::vector<std::string> ids = {};
};

[[nodiscard]] route_found route_find(const request& in);

}  // namespace tarvex::emulator
