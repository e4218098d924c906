#pragma once

#include "base/json.h"
#include "oauth/https.h"

#include <chrono>
#include <optional>
#include <string>

namespace tarvex::server {

/// Box's answer to a question for an object.
struct box_document {
  std::string error = {};                             ///< one line; empty: there is a body
  int status = 0;                                     ///< 0: no answer came
  json_document body = {};                            ///< an object; null after an error
  std::optional<std::chrono::sys_seconds> date = {};  ///< Box's clock, if it told
};

/// Asks Box's API at that URL. Blocks.
[[nodiscard]] box_document box_document_get(const https_setup& https, const std::string& url,
                                            const std::string& access_token);

}  // namespace tarvex::server
