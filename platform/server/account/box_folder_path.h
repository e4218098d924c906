#pragma once

#include "oauth/https.h"

#include <string>

namespace tarvex::server {

struct box_path_answer {
  std::string error = {};  ///< one line; empty: the folder is there
  std::string id = {};
};

/// Looks a folder up by its path in Box ("/", "/Projects/X"), name by name.
[[nodiscard]] box_path_answer box_folder_find(const https_setup& https, const std::string& api_base,
                                              const std::string& access_token, const std::string& path);

}  // namespace tarvex::server
